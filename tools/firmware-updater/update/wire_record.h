// A recorded update: the traffic on the line with its times, and the outcome. `update
// --record` writes one, `replay` runs the engine against it, without a device and without waiting.
//
// The file has one JSON object a line:
//
//   recording   first: version, kind of transport
//   image       the firmware, one for each image of the update file
//   run         an engine run begins: its flags
//   out, in     bytes to and from the device, with the time in seconds since the run began
//   reconnect   the transport looked for a vanished device again
//   stop        the user asked for an end
//   ended       the run is over: its outcome
//
// Unless the firmware is requested too, a record holds only as much of it as the engine's decisions
// need: its descriptor, and which bytes are blank. Every other byte is 0, and blocks on the line are
// only counted.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/firmware_updater.h"
#include "platform/platform.h"
#include "transport/observed_transport.h"

namespace tavo::tool {

struct WireEvent {
  enum class Kind { Out, In, Reconnect };

  Kind kind = Kind::Out;
  std::chrono::milliseconds time{0};  // since the run began
  bool ok = true;                     // whether the transport could do it
  std::vector<std::uint8_t> bytes{};
  std::size_t hidden = 0;  // instead of `bytes`: the length of a frame that carries firmware
};

struct RunOutcome {
  bool succeeded = false;
  int code = 0;          // of the failure; 0 for none
  std::string device{};  // stable name of the device's condition

  bool operator==(const RunOutcome&) const = default;
};

// The outcome of an engine's last run.
RunOutcome OutcomeOf(const FirmwareUpdater& engine);
// "failed with code 1, device bootloader-flash-erased".
std::string Describe(const RunOutcome& outcome);

struct RecordedRun {
  UpdateFlags flags{};
  std::vector<WireEvent> events{};
  std::optional<std::chrono::milliseconds> stop{};
  RunOutcome outcome{};
};

struct WireRecord {
  std::vector<FirmwareImage> images{};
  std::vector<RecordedRun> runs{};
};

// Empty when `record` has been read, otherwise the fault of the file in one sentence. `path` must name
// a regular file of bounded size.
std::string ReadWireRecord(const std::string& path, WireRecord& record);

// The image with every byte set to 0 that no decision depends on and that is not blank.
FirmwareImage WithoutProgram(const FirmwareImage& image);

// Whether a frame carries a block of firmware.
bool CarriesFirmware(std::span<const std::uint8_t> frame);

class WireRecorder final : public TransportObserver {
 public:
  // Truncates the file; without a path nothing is recorded. `platform` supplies the times. `onLost` is
  // called once, with the first line that could not be written.
  WireRecorder(
      Platform& platform, const std::string& path, bool withFirmware,
      std::function<void()> onLost = [] {});

  void AddImage(const FirmwareImage& image);
  // Traffic between two runs is not recorded.
  void RunBegins(const UpdateFlags& flags);
  void RunEnds(const RunOutcome& outcome);
  void Stop();  // from any thread
  // Whether a line could not be written to the file.
  bool HasLost() const { return m_lost; }

  void BytesSent(bool ok, Bytes bytes) override { Add(WireEvent::Kind::Out, ok, bytes); }
  void BytesReceived(bool ok, Bytes bytes, std::chrono::milliseconds) override {
    if (!ok || !bytes.empty()) Add(WireEvent::Kind::In, ok, bytes);
  }
  void Reconnected(bool ok) override { Add(WireEvent::Kind::Reconnect, ok, {}); }

 private:
  void Add(WireEvent::Kind kind, bool ok, Bytes bytes);
  void Write(const std::string& line);
  double Now() const;

  Platform& m_platform;
  std::ofstream m_file;
  bool m_withFirmware;
  std::function<void()> m_onLost;
  std::atomic<bool> m_lost = false;
  std::mutex m_lock;  // a stop comes from another thread
  bool m_running = false;
  std::chrono::milliseconds m_begin{0};
};

}  // namespace tavo::tool
