// A host that updates in one thread and, from another, watches the progress until some of the
// firmware is written and then stops the update, or leaves the whole process in its midst.
//
// usage: stopping_host FILE [leave]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "firmware_updater.h"

constexpr int kLeft = 7;

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) return 2;
  bool returned = true;
  std::thread update([&] { returned = update_usb_device("", argv[1], false, false, false); });

  constexpr float kStopAt = 0.2F;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (get_progress() < kStopAt && get_last_error() == 0 &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (argc == 3) std::exit(kLeft);
  stop_update();
  update.join();
  const bool midway = get_progress() >= kStopAt && get_progress() < 1.0F;
  std::printf("returned %s, last error %d, stopped %s\n", returned ? "true" : "false",
              get_last_error(), midway ? "midway" : "elsewhere");
  return returned ? 1 : 0;
}
