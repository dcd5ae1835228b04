// The rules that a device has to keep. Each row of the table names a rule, the request whose answer shows it,
// and the sentence of docs/protocol.md from which it follows. Its judge reads the findings and touches no
// device.
//
//   for (const Rule& rule : Rules()) Show(rule, Judge(rule, examination.Results()));
#pragma once

#include <span>
#include <string>

#include "device/examination.h"

namespace tavo::tool {

enum class Mark { Pass, Hint, Fail, NotAsked };

struct Ruling {
  Mark mark;
  std::string text;  // the evidence; of a rule not asked, when it is
};

enum class Stage { Application, Bootloader, Writing, Start };

struct Rule {
  Stage stage;       // after which it can be judged
  const char* name;  // stable, for scripts
  const char* asks;  // the request, as docs/protocol.md calls it
  const char* sentence;
  Ruling (*judge)(const Findings& findings, const Asked& asked);
  const char* question = nullptr;  // the name of its outcome, if not the rule's own
  std::uint32_t fromVersion = 0;   // of the bootloader, to be asked
  bool usbOnly = false;
};

// In the order of the stages.
std::span<const Rule> Rules();

Ruling Judge(const Rule& rule, const Findings& findings);

}  // namespace tavo::tool
