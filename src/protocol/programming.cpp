// Erases the application section and writes the image, block by block: for each block its address
// (positioning), then its bytes (writing), each answered before the next goes out. The answer to a
// last positioning request, just past the image, ends the step. WriteState draws the states.
#include <algorithm>
#include <array>
#include <cassert>

#include "engine/firmware_updater.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

constexpr std::uint8_t kNormalErase = 0x01;
constexpr std::uint8_t kExtendedErase = 0x03;

std::array<std::uint8_t, 4> LittleEndian(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

}  // namespace

StepResult FirmwareUpdater::EraseApplication(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: {
      const std::array mode{m_flags.extendedErase ? kExtendedErase : kNormalErase};
      return Send(kEraseApplication, mode);
    }
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Erase Application Memory: Ok");
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kEraseApplication);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::WriteBlock(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: return BeginWriting();
    case StepPhase::Answer: return BlockAnswered();
    case StepPhase::Timeout: return RetryWriting();
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::BeginWriting() {
  if (m_blockSize == 0 || ImageSize() < m_blockSize) {
    m_log.LogInfo("FirmwareUpdater: Write Block: Argument error: Size:%u | Block:%u ", ImageSize(),
                  m_blockSize);
    return Fail(ErrorCode::FlashWriting, "Error: Writing Flash");
  }
  m_writeState = WriteState::Positioning;
  m_writeOffset = 0;
  m_bytesDone = 0;
  m_bytesTotal = Blocks().BytesWithData();
  Report({StatusKind::TransferBegins, static_cast<std::int32_t>(m_bytesTotal)});
  m_log.LogInfo("FirmwareUpdater: Write Block: Start. Bytes to Transfer: %u", m_bytesTotal.load());
  return SendWriteRequest();
}

StepResult FirmwareUpdater::BlockAnswered() {
  m_retryCount = 0;
  if (m_writeState == WriteState::Positioning) {
    m_writeState = WriteState::Writing;
    return SendWriteRequest();
  }
  assert(m_writeOffset < ImageSize());
  m_bytesDone += m_blockSize;
  m_writeOffset = Blocks().NextToWrite(m_writeOffset);
  Report({StatusKind::TransferProgress, static_cast<std::int32_t>(m_bytesDone)});
  m_writeState = WriteState::Positioning;
  return SendWriteRequest();
}

StepResult FirmwareUpdater::RetryWriting() {
  m_log.LogInfo(
      "FirmwareUpdater: Write Block: Timeout in Mode: %u at Address 0x%.8X. Try: %d of %d",
      static_cast<unsigned>(m_writeState), SelectedFirmware().startAddress + m_writeOffset,
      m_retryCount, m_maxRetries);
  if (++m_retryCount > m_maxRetries) {
    return OnTimeout(m_writeState == WriteState::Writing ? kWriteFlash : kPositionFlash);
  }
  return SendWriteRequest();
}

StepResult FirmwareUpdater::SendWriteRequest() {
  if (m_writeState == WriteState::Positioning) {
    return Send(kPositionFlash, LittleEndian(SelectedFirmware().startAddress + m_writeOffset));
  }
  return m_writeOffset < ImageSize() ? SendBlock() : FinishWriting();
}

StepResult FirmwareUpdater::SendBlock() {
  assert(m_writeState == WriteState::Writing && m_blockSize <= kMaxBlockSize);
  // Pads a block that reaches past the end of the image with what the erase left there.
  std::array<std::uint8_t, kMaxBlockSize> block;
  block.fill(kErasedByte);
  const ImageBlocks blocks = Blocks();
  std::ranges::copy(blocks.At(m_writeOffset), block.begin());
  if (blocks.NextToWrite(m_writeOffset) == ImageSize()) m_evidence.LastBlockSent();
  return Send(kWriteFlash, std::span(block).first(m_blockSize));
}

StepResult FirmwareUpdater::FinishWriting() {
  assert(m_writeState == WriteState::Writing);
  const unsigned size = ImageSize();
  if (m_writeOffset > size) {
    m_log.LogInfo(
        "FirmwareUpdater: Write Block: More Bytes than expected. Firmware Size: %u | Transferred "
        "Bytes: %u (%u)",
        size, m_writeOffset, m_bytesDone.load());
    return Fail(ErrorCode::FlashWriting, "Error: Flash Writing. More Bytes than expected.");
  }
  Report({StatusKind::TransferEnded});
  m_log.LogInfo("FirmwareUpdater: Write Block: Ok. Firmware Size: %u | Transferred Bytes: %u (%u)",
                size, m_writeOffset, m_bytesDone.load());
  return StepResult::Done;
}

std::uint32_t FirmwareUpdater::ImageSize() const {
  return static_cast<std::uint32_t>(SelectedFirmware().data.size());
}

ImageBlocks FirmwareUpdater::Blocks() const { return {SelectedFirmware().data, m_blockSize}; }

}  // namespace tavo
