// Makes firmware images of an update file: a single Intel HEX file, or a ZIP archive of Intel HEX
// files. The engine calls LoadUpdateFile once at the start of an update and keeps the images for its
// whole duration. Nothing here logs or fails loudly: a file or member that cannot be read yields no
// image, and the first step of the update judges the images.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "package/firmware_image.h"
#include "package/zip_members.h"

namespace tavo {

enum class UpdateFileKind { Hex, Zip, Neither };

// By the extension of the name alone, in upper or lower case: the part behind its last '.'.
UpdateFileKind KindByName(std::string_view name);

// The images of the file at `path`, in the order of their names in an archive; a later member of the
// same name takes the place of an earlier one, image or not. A HEX file that cannot be read gives one
// image without bytes, which no device can take; members that cannot be unpacked or converted are left
// out. Empty when nothing is left, and when memory runs out. Throws nothing.
std::vector<FirmwareImage> LoadUpdateFile(std::string path);

// The same for a file of that name whose bytes have been read already. The visitor, where there is
// one, sees every member, Unpacked if it has given an image; a HEX file is its own only member. Throws
// std::bad_alloc when memory runs out, and what the visitor throws.
std::vector<FirmwareImage> MakeImages(const std::string& name, std::span<const std::uint8_t> bytes,
                                      const MemberVisitor& visit = {});

}  // namespace tavo
