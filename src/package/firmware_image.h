// One firmware image of an update file, as the converter made it. The engine owns the images of an
// update; everything else only reads them.
#pragma once

#include <cstdint>
#include <vector>

namespace tavo {

struct FirmwareImage {
  std::vector<std::uint8_t> data;
  std::uint32_t startAddress = 0;  // device address of data[0]
};

}  // namespace tavo
