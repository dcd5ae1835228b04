// Unpacks the members of a ZIP archive, one at a time, for the update file reader. It never writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "package/file_reading.h"

namespace tavo {

enum class MemberFate {
  Unpacked,
  Folder,
  NotWanted,
  Encrypted,
  UnknownMethod,  // packed in a way that cannot be unpacked
  TooLarge,       // for the memory, or for what is left of the archive's share
  BadChecksum,    // all bytes were unpacked, but they are not the ones that were packed
  Damaged,
  NotConverted,  // unpacked, but not Intel HEX
  NoArchive,     // the whole file, which should be an archive
};

struct UpdateMember {
  std::string name;  // as stored, but with '/' for every backslash
  MemberFate fate = MemberFate::Unpacked;
  std::string_view detail{};             // the unpacker's own word on a damaged member
  std::span<const std::uint8_t> text{};  // of an unpacked member
};

// Sees each member in turn; the text is gone when the call returns.
using MemberVisitor = std::function<void(const UpdateMember&)>;

struct ZipRules {
  // Whether a member is unpacked; one that is not costs nothing. Not asked for folders.
  bool (*wants)(std::string_view name);
  // Of all unpacked members together. A member that does not fit into the rest is left out, whatever
  // size it claims, and so are all once damaged ones have cost as much again.
  std::size_t maxText = kMaxUpdateTextBytes;
};

// Visits all members in the order of the archive's directory. False when the archive cannot be opened;
// then there are none. Throws std::bad_alloc and what the visitor throws.
bool VisitZipMembers(const std::string& path, const ZipRules& rules, const MemberVisitor& visit);
bool VisitZipMembers(std::span<const std::uint8_t> archive, const ZipRules& rules,
                     const MemberVisitor& visit);

}  // namespace tavo
