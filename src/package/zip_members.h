// Unpacks the members of a ZIP archive, for the update file reader. Nothing is ever written, and no
// member is in memory as a whole: who visits the archive gets the bytes as they are unpacked.
#pragma once

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
  TooLarge,       // for the memory, or for what is left of the whole archive's share
  BadChecksum,    // all bytes are there, but not those that were packed
  Damaged,
};

// Whom the archive is read for. Names are as stored but with every backslash turned into '/'.
class ZipVisitor : public TextSink {
 public:
  // The archive cannot be opened, and no member follows.
  virtual void OnNoArchive() = 0;

  // Whether a member is to be unpacked; one that is not costs nothing. Not asked for folders.
  virtual bool Wants(const std::string& name) = 0;

  // For every member, in the order of the archive's directory, behind the bytes of those that are
  // unpacked. Only with Unpacked they are all there and undamaged. `detail` is the unpacker's own
  // word on a damaged member and empty for the others.
  virtual void OnMember(const std::string& name, MemberFate fate, std::string_view detail) = 0;
};

// Left out are folders, members that are encrypted, packed by an unknown method or damaged, and
// those that do not fit into what is left of kMaxUpdateTextBytes for the whole archive; unpacking
// stops there, whatever size the archive claims. A member is too large, too, when the visitor has no
// memory for its bytes. Throws nothing but what the visitor throws, except in OnBytes.
void VisitZipMembers(const std::string& path, ZipVisitor& visitor);

}  // namespace tavo
