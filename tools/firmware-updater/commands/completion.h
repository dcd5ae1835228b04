// Shell completion: the hidden command "complete", which the shells' completion scripts ask for the
// words that fit at the cursor. It walks the parser, so a new option is offered without further work.
#pragma once

#include <span>
#include <string>

#include "text/machine.h"

namespace CLI {
class App;
}

namespace tavo::tool {

// Writes the candidates for the last of `words` (those behind the program's name, up to the cursor),
// one a line, each followed by a tab and its description when it has one. Three lines stand for words
// that the shell knows better: ":files", ":folders" and ":commands". For --usb and --ftdi the connected devices
// are offered; their names come from outside, and a shell has to quote them.
void Complete(const CLI::App& app, std::span<const std::string> words, const Machine& machine);

}  // namespace tavo::tool
