// Keeps a simulated device's memory in a directory, so that it outlives the simulator:
//   flash.bin    the application section
//   state.json   family, state, label, tunnel, and whether the flash holds a firmware that starts
//   journal.txt  one line per request, appended
// The first two are replaced whole, so a reader never sees half a file.
#pragma once

#include <filesystem>
#include <optional>

#include "simulator/device.h"
#include "simulator/new_file.h"

namespace tavosim {

class StateDirectory {
 public:
  // Creates the directory, or restores `device` from what it holds. Throws std::runtime_error, with
  // a text for the user, when it cannot be used or belongs to another family.
  StateDirectory(std::filesystem::path directory, Device& device);

  // Writes what has changed since the last call, and takes over the device's journal. Throws
  // std::runtime_error when that fails.
  void Update(SimTime now);

 private:
  void Restore();
  void Save(const Snapshot& snapshot);

  std::filesystem::path m_directory;
  Device& m_device;
  Snapshot m_saved;
  DeviceState m_lastState = DeviceState::None;
  std::optional<GrowingFile> m_journal{};
};

}  // namespace tavosim
