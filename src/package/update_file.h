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

// Looks on while an update file is read: first on what becomes of the members of an archive, then on
// every HEX file, in the order of the images. What an observer throws leaves no images.
class UpdateFileObserver : public ZipObserver {
 public:
  // `name` is the member's, or the path of a single HEX file. With HexResult::Ok the text has given
  // the next image.
  virtual void OnConverted(const std::string& name, std::span<const std::uint8_t> text,
                           HexResult result) = 0;
};

// The images of the file at `path`, in the order of their names in an archive. The file's kind, and
// which members of an archive count, is told by the name's extension alone, in upper or lower case.
// A HEX file that cannot be read gives one image without bytes, which no device can take; members
// that cannot be unpacked or converted are left out. Empty when nothing is left, and when memory
// runs out. Throws nothing. An observer, where there is one, changes nothing of that.
std::vector<FirmwareImage> LoadUpdateFile(std::string path, UpdateFileObserver* observer = nullptr);

}  // namespace tavo
