// Gives the page to a browser on this machine, and takes what its user asks for. Nobody else gets in: it
// listens on the loopback address alone; all but the page itself takes a secret, which is in the address
// that is shown to the user; and a request that another site has sent, or that came by another name than
// this machine's own, is refused. Reading changes nothing. What it lets in goes to the Bench.
#pragma once

#include <span>
#include <string_view>

#include "serve/bench.h"

namespace tavo::tool {

// A file in page/, which the build puts into the program.
struct PageFile {
  const char* path;  // in the address
  const char* type;
  std::string_view text;
};
std::span<const PageFile> PageFiles();

// Serves the page while the bench runs, and returns what that returns. The address is said first, for the user
// alone: the browser keeps the part after the '#' to itself. Throws std::runtime_error when it cannot listen.
ExitCode ServeBench(Bench& bench, const Bench::Say& say);

}  // namespace tavo::tool
