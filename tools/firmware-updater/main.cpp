// firmware-updater: the library's work from a terminal, a script or a production line.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "app.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"

namespace {

std::string_view Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

int TerminalWidth() {
  constexpr int kUsual = 80;
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kUsual;
}

// A standard stream that was closed by whoever started the program would be the next file that is
// opened, a device or the log, and get what is meant for the user. What is written here instead
// fails, as it should.
void OpenClosedStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) == -1) open("/dev/null", O_RDONLY);  // becomes the lowest free one
  }
}

}  // namespace

int main(int argc, char** argv) {
  OpenClosedStreams();
  const bool terminal = isatty(STDOUT_FILENO) == 1 && Environment("TERM") != "dumb";
  const auto adapters = tavo::MakeSystemD2xx();
  return tavo::tool::RunTool(argc, argv,
                             {.platform = tavo::SystemPlatform(),
                              .usb = tavo::SystemLibUsb(),
                              .adapters = *adapters,
                              .out = std::cout,
                              .err = std::cerr,
                              .terminal = terminal,
                              .colour = terminal && Environment("NO_COLOR").empty(),
                              .width = TerminalWidth});
}
