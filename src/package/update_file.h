// Reads an update file: a single Intel HEX file, or a ZIP archive of Intel HEX files. The engine
// calls LoadUpdateFile once at the start of an update and keeps the images for its whole duration.
// Nothing here logs or fails loudly: what cannot be read yields no image, and the first step of the
// update judges the images.
#pragma once

#include <string>
#include <vector>

#include "package/firmware_image.h"

namespace tavo {

// The images of the file at `path`, in the order of their names in an archive. The file's kind, and
// which members of an archive count, is told by the name's extension alone, in upper or lower case.
// A HEX file that cannot be read gives one image without bytes, which no device can take; members
// that cannot be unpacked or converted are left out. Empty when nothing is left, and when memory
// runs out. Throws nothing.
std::vector<FirmwareImage> LoadUpdateFile(std::string path);

}  // namespace tavo
