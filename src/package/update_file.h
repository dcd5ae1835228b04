// Reads an update file: a single Intel HEX file, or a ZIP archive of Intel HEX files. The engine
// calls LoadUpdateFile once at the start of an update and keeps the images for its whole duration.
// Nothing here logs or fails loudly: what cannot be read yields no image, and the first step of the
// update judges the images.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "package/firmware_image.h"
#include "package/intel_hex_converter.h"
#include "package/zip_members.h"

namespace tavo {

enum class UpdateFileKind { Hex, Zip, Neither };

// By the extension of the name alone, in upper or lower case: what stands behind its last '.'.
UpdateFileKind KindByName(std::string_view name);

// Looks on while an update file is read: on what becomes of the members of an archive, in the order
// of its directory, and on every HEX file in it. What an observer throws leaves no images.
class UpdateFileObserver {
 public:
  virtual ~UpdateFileObserver() = default;

  // The file is named like an archive, but cannot be opened as one.
  virtual void OnNoArchive() = 0;

  // The next piece of the text of a HEX file, before it is known what becomes of it. May throw
  // std::bad_alloc, which makes a member of an archive too large.
  virtual void OnText(std::span<const std::uint8_t> piece) = 0;

  // As the visitor of an archive is told it; for members only.
  virtual void OnMember(const std::string& name, MemberFate fate, std::string_view detail) = 0;

  // The text that came has been converted. `name` is the member's, or the path of a single HEX file.
  // With HexResult::Ok the text has given an image. The images of an archive are in the order of the
  // names; a later member of the same name takes the place of an earlier one, image or not.
  virtual void OnConverted(const std::string& name, HexResult result) = 0;
};

// The images of the file at `path`, in the order of their names in an archive. The file's kind, and
// which members of an archive count, is told by the name's extension alone, in upper or lower case.
// A HEX file that cannot be read gives one image without bytes, which no device can take; members
// that cannot be unpacked or converted are left out. Empty when nothing is left, and when memory
// runs out. Throws nothing. An observer, where there is one, changes nothing of that.
std::vector<FirmwareImage> LoadUpdateFile(std::string path, UpdateFileObserver* observer = nullptr);

}  // namespace tavo
