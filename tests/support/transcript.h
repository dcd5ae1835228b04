// The parts of an update that tests compare: the requests that reach the device and the lines that a
// person reads, with the expected sequences. Used on the virtual clock and with processes.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace tavo::test {

using Lines = std::vector<std::string>;

// A run of blocks, each positioned and written, becomes one line.
inline Lines WithBlocksCounted(const Lines& requests) {
  Lines lines;
  int blocks = 0;
  for (const std::string& request : requests) {
    if (request.starts_with("0x134")) {
      if (!lines.empty() && lines.back().starts_with("0x133")) lines.pop_back();
      if (blocks++ > 0) lines.pop_back();  // the count so far
      lines.push_back(std::to_string(blocks) + " blocks");
    } else {
      if (!request.starts_with("0x133")) blocks = 0;
      lines.push_back(request);
    }
  }
  return lines;
}

inline bool IsLogLine(const std::string& line) {
  return line.starts_with("20") && line.find(" - ") == std::string("2024.03.01").size();
}

inline Lines LinesOf(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The console without the copies of log lines; of the progress bar only what stands at last.
inline Lines DialogueOf(const std::string& console) {
  Lines lines;
  for (const std::string& line : LinesOf(console)) {
    if (!IsLogLine(line)) lines.push_back(line.substr(line.rfind('\b') + 1));
  }
  return lines;
}

inline Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

inline Lines Times(int count, const Lines& lines) {
  return count == 0 ? Lines{} : lines + Times(count - 1, lines);
}

// The requests of an update, part by part.
inline const Lines kLeave{"0x12F 01"};
inline const Lines kStatus{"1B 1B 1B", "0x100 EB 00"};
inline const Lines kClose{"1B 1B 1B", "0x100 EC 00"};
inline const Lines kDeviceId{"0x100 BB 0A"};
inline const Lines kOpenTunnel41{"0x100 ED 00 01 04"};
inline const Lines kSoftwareId{"0x100 BB 02"};
inline const Lines kCallBootloader{"0x100 FD 00"};
inline const Lines kSignOfLife{"0x100 00"};
inline const Lines kModules{"0x814 00"};
inline const Lines kUntilErase{"0x120", "0x121", "0x132", "0x122", "0x130 01"};
inline const Lines kFlash16K{"120 blocks", "0x133 00 80 00 00"};
inline const Lines kVerifyAndStart{"0x136", "0x12F"};
inline const Lines kProgramming = kUntilErase + kFlash16K + kVerifyAndStart + kSignOfLife;
inline const Lines kClosingPlan = kStatus + kLeave + Times(7, kSignOfLife);

inline const Lines kPlainUpdate = kLeave + kStatus + kDeviceId + kSoftwareId + kCallBootloader +
                                  kProgramming + kSignOfLife + kModules;
inline const Lines kTunnelUpdate = kLeave + kStatus + kDeviceId + kOpenTunnel41 + kSoftwareId +
                                   kCallBootloader + kProgramming + kSignOfLife + kModules + kClose;

// A tunnel that is already the right one is closed and not opened again: the status was taken
// before it was closed. Its target stays out of reach, so that update fails; the next one works.
inline const Lines kUnreachable = kLeave + kStatus + kClose + kDeviceId + Times(4, kSoftwareId) +
                                  kCallBootloader + Times(7, {"0x120"}) + kClosingPlan;
inline const Lines kAfterOtherTunnel =
    kLeave + kStatus + kClose + Lines(kTunnelUpdate.begin() + 3, kTunnelUpdate.end());
inline const Lines kPlainAfterTunnel =
    kLeave + kStatus + kClose + Lines(kPlainUpdate.begin() + 3, kPlainUpdate.end());

}  // namespace tavo::test
