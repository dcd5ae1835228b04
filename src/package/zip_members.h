// Unpacks the members of a ZIP archive into memory, for the update file reader. Nothing is ever
// written. What is damaged is left out without a message; who wants to know more observes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavo {

// Member name, as stored but with every backslash turned into '/', to member bytes. The order is
// that of the bytes of the names.
using ZipMembers = std::map<std::string, std::vector<std::uint8_t>>;

enum class MemberFate {
  Unpacked,
  Folder,
  NotWanted,
  Encrypted,
  UnknownMethod,  // packed in a way that cannot be unpacked
  TooLarge,       // for the memory, or for what is left of the whole archive's share
  BadChecksum,    // all bytes are there, but not those that were packed
  Damaged,
};

// Looks on while an archive is read. What an observer throws ends the reading.
class ZipObserver {
 public:
  virtual ~ZipObserver() = default;

  // The archive cannot be opened, and no member follows.
  virtual void OnNoArchive() = 0;

  // For every member, in the order of the archive's directory. `detail` is the unpacker's own word
  // on a damaged member and empty for the others.
  virtual void OnMember(const std::string& name, MemberFate fate, std::string_view detail) = 0;
};

// Unpacks the members for whose name `wanted` is true; the others cost nothing. Left out are
// folders, members that are encrypted, packed by an unknown method or damaged, and those that do
// not fit into memory or into what is left of kMaxUpdateTextBytes for the whole archive; unpacking
// stops there, whatever size the archive claims. Of two members of one name the later one stays.
// Empty when the archive cannot be opened. Throws nothing, save what the observer throws; without
// one (null) nothing is kept about members that are left out.
ZipMembers ExtractZipMembers(const std::string& path, bool (*wanted)(std::string_view name),
                             ZipObserver* observer = nullptr);

}  // namespace tavo
