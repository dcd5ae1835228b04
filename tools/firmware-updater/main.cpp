// firmware-updater: the library's work from a terminal, a script or a production line.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "app.h"

namespace {

std::string_view Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

}  // namespace

int main(int argc, char** argv) {
  const bool terminal = isatty(STDOUT_FILENO) == 1 && Environment("TERM") != "dumb";
  const auto adapters = tavo::MakeSystemD2xx();
  return tavo::tool::RunTool(argc, argv,
                             {.platform = tavo::SystemPlatform(),
                              .usb = tavo::SystemLibUsb(),
                              .adapters = *adapters,
                              .out = std::cout,
                              .err = std::cerr,
                              .terminal = terminal,
                              .colour = terminal && Environment("NO_COLOR").empty()});
}
