// firmware-updater: the library's work from a terminal, a script or a production line.
#include <iostream>
#include <string>
#include <vector>

#include "app.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "system/process.h"
#include "system/system.h"

int main(int argc, char** argv) {
  using namespace tavo::tool;
  PrepareStreams();
  Process::NameTool(tavo::SystemPlatform().ExecutablePath());
  const std::vector<std::string> words = CommandLineWords(argc, argv);
  std::vector<const char*> pointers;
  pointers.reserve(words.size());
  for (const std::string& word : words) pointers.push_back(word.c_str());
  const bool terminal = IsTerminal();
  const auto adapters = tavo::MakeSystemD2xx();
  return RunTool(static_cast<int>(pointers.size()), pointers.data(),
                 {.platform = tavo::SystemPlatform(),
                  .usb = tavo::SystemLibUsb(),
                  .adapters = *adapters,
                  .out = std::cout,
                  .err = std::cerr,
                  .terminal = terminal,
                  .colour = terminal && Environment("NO_COLOR").empty(),
                  .width = [] { return SizeOfTerminal().width; },
                  .height = [] { return SizeOfTerminal().height; }});
}
