// A host that updates in one thread and, from another, watches the progress until some of the
// firmware is written. Then it stops the update, leaves the whole process in its midst, or lists
// devices until the update ends.
//
// usage: stopping_host usb|ftdi FILE stop|leave|list
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "firmware_updater.h"

constexpr int kLeft = 7;

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const bool usb = std::strcmp(argv[1], "usb") == 0;
  const std::string action = argv[3];
  std::atomic<bool> ended = false;
  bool returned = true;
  std::thread update([&] {
    returned = usb ? update_usb_device("", argv[2], false, false, false)
                   : update_ftdi_device("", 19200, false, argv[2], false, false, false);
    ended = true;
  });

  constexpr float kStopAt = 0.2F;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (get_progress() < kStopAt && get_last_error() == 0 &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (action == "leave") std::exit(kLeft);
  if (action == "stop") stop_update();
  while (action == "list" && !ended) list_devices();
  update.join();
  const bool midway = get_progress() >= kStopAt && get_progress() < 1.0F;
  std::printf("returned %s, last error %d, ended %s\n", returned ? "true" : "false",
              get_last_error(), midway ? "midway" : "elsewhere");
  return 0;
}
