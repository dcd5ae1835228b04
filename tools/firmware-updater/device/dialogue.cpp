#include "device/dialogue.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <span>

#include "device/refused_text.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

enum class Notation { Decimal, Kibibytes, Hexadecimal, HighByteFirst };

struct Field {
  const char* name = nullptr;
  std::uint8_t bytes = 0;  // 0: no such field
  Notation notation = Notation::Decimal;
};
using Fields = std::array<Field, 2>;

struct RequestRow {
  const Command* command;
  const char* name;
  Fields arguments;
  Fields answer;
  const char* rule = kAnswerInTime;
};

constexpr Fields kNothing{};
constexpr Notation kHex = Notation::Hexadecimal;

// The first row of an id whose head matches the payload wins.
// clang-format off
constexpr std::array kRequests{
    RequestRow{&kLeaveBootloader,      "LEAVE", kNothing, kNothing},
    RequestRow{&kTunnelStatus,         "tunnel STATUS", kNothing, {{{"slave", 1}, {"master", 1}}}},
    RequestRow{&kInitTunnel,           "open the tunnel", {{{"slave", 1}, {"master", 1}}}, kNothing},
    RequestRow{&kDeinitTunnel,         "close the tunnel", kNothing, kNothing},
    RequestRow{&kRequestDeviceId,      "DEVICE ID", kNothing, {{{"device id", 2, kHex}}},
               "an application answers DEVICE ID in one of its two forms."},
    RequestRow{&kRequestDeviceIdAdmin, "DEVICE ID, second form", kNothing, {{{"device id", 2, kHex}}},
               "an application answers DEVICE ID in one of its two forms."},
    RequestRow{&kRequestSoftwareId,    "SOFTWARE ID", kNothing, {{{"software id", 2, kHex}}}},
    RequestRow{&kCallBootloader,       "CALL the bootloader", kNothing, kNothing},
    RequestRow{&kWaitForApplication,   "ALIVE", kNothing, kNothing,
               "an application answers ALIVE within 25 s of its start."},
    RequestRow{&kSetLabel,             "LABEL", {{{"label", 1}}}, kNothing,
               "an application whose firmware has labels answers LABEL."},
    RequestRow{&kRequestModule,        "MODULES", {{{"index", 1}}}, {{{"code", 2, kHex}}}},
    RequestRow{&kCheckVersion,         "VERSION", kNothing, {{{"version", 1}, {"block size", 1}}},
               "a bootloader answers VERSION within 30 s of CALL."},
    RequestRow{&kRequestProcessorId,   "PROCESSOR", kNothing, {{{"processor", 3, Notation::HighByteFirst}}}},
    RequestRow{&kCheckApplicationSize, "SIZE", kNothing, {{{"application section", 2, Notation::Kibibytes}}}},
    RequestRow{&kCheckHardwareId,      "HARDWARE", kNothing, {{{"hardware id", 2, kHex}}}},
    RequestRow{&kEraseApplication,     "ERASE", {{{"mode", 1}}}, kNothing,
               "a bootloader answers ERASE when the flash is erased, within 4 s."},
    RequestRow{&kPositionFlash,        "POSITION", {{{"address", 4, kHex}}}, kNothing,
               "a bootloader answers POSITION for every block, and for the address just past the image, "
               "which ends the writing."},
    RequestRow{&kWriteFlash,           "WRITE", kNothing, kNothing,
               "a bootloader answers WRITE when the block is written, within 4 s."},
    RequestRow{&kVerify,               "VERIFY", kNothing, {{{"calculated", 4, kHex}, {"reference", 4, kHex}}},
               "from version 3 on a bootloader answers VERIFY, within 4 s."},
    RequestRow{&kStartApplication,     "START the application", kNothing, kNothing,
               "a bootloader answers START, then starts the application."},
};
// clang-format on

std::size_t LengthOf(const Fields& fields) {
  return fields[0].bytes + std::size_t{fields[1].bytes};
}

std::uint32_t ValueOf(const Field& field, std::span<const std::uint8_t> bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < field.bytes; ++i) {
    const std::size_t place = field.notation == Notation::HighByteFirst ? i : field.bytes - 1 - i;
    value = value << 8 | bytes[place];
  }
  return value;
}

std::string TextOf(const Field& field, std::uint32_t value) {
  switch (field.notation) {
    case Notation::Decimal: return std::to_string(value);
    case Notation::Kibibytes: return std::to_string(value) + " KiB";
    default: return Hex(value, 2 * field.bytes);
  }
}

// "version 3, block size 16"; without bytes, which must hold all of the fields, only the names.
std::string TextOf(const Fields& fields, std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const Field& field : fields) {
    if (field.bytes == 0) break;
    text += (text.empty() ? "" : ", ") + std::string(field.name);
    if (bytes.empty()) continue;
    text += " " + TextOf(field, ValueOf(field, bytes));
    bytes = bytes.subspan(field.bytes);
  }
  return text;
}

std::span<const std::uint8_t> PayloadOf(const TavoMessage& message) {
  return std::span(message.payload).first(message.length);
}

const RequestRow* RowOf(const TavoMessage& message) {
  const bool alternative = message.id == kAlternativeApplicationRequest;
  const std::uint16_t id = alternative ? kApplicationRequest : message.id;
  const auto row = std::ranges::find_if(kRequests, [&](const RequestRow& candidate) {
    const PayloadHead& head = candidate.command->head;
    return candidate.command->id == id &&
           message.length >= head.length + LengthOf(candidate.arguments) &&
           std::equal(head.bytes.begin(), head.bytes.begin() + head.length,
                      message.payload.begin());
  });
  return row == kRequests.end() ? nullptr : &*row;
}

const RequestRow& RowOf(const Command& command) {
  return *std::ranges::find(kRequests, &command, &RequestRow::command);
}

std::string WriteText(std::size_t bytes, std::uint32_t position) {
  return Format("WRITE, %zu bytes at 0x%08X", bytes, position);
}

SentRequest Describe(const TavoMessage& message, std::uint32_t position) {
  const RequestRow* const row = RowOf(message);
  if (row == nullptr) return {.id = message.id, .text = "unknown request"};
  SentRequest request{.command = row->command, .id = message.id, .rule = row->rule};
  if (row->command == &kWriteFlash) {
    request.text = WriteText(message.length, position);
    return request;
  }
  const auto arguments = PayloadOf(message).subspan(row->command->head.length);
  const std::string fields = TextOf(row->arguments, arguments);
  request.text = row->name + (fields.empty() ? "" : ", " + fields);
  request.argument = ValueOf(row->arguments[0], arguments);
  return request;
}

}  // namespace

std::optional<TavoMessage> MessageIn(std::span<const std::uint8_t> frame) {
  const FrameCodec& codec = kFrameCodecs[0];
  FrameAssembler assembler;
  for (const std::uint8_t byte : frame) assembler.PutByte(byte, codec);
  const std::optional<TavoMessage> message = assembler.TakeFrame(codec);
  return assembler.Refused().Total() == 0 ? message : std::nullopt;
}

void Dialogue::BytesSent(bool ok, Bytes bytes) {
  const std::string text = HexBytes(bytes);
  End();
  if (m_testsLine) return Put(">", text, "does the line return it?");
  if (const std::optional<TavoMessage> message = MessageIn(bytes)) {
    return Begin(Describe(*message, m_position), ok, text);
  }
  Put(">", text,
      std::ranges::equal(bytes, kEscapeSequence) ? "raw, so that a master listens" : "raw");
}

void Dialogue::HiddenBlockSent(bool ok, std::size_t frameBytes) {
  End();
  const std::size_t block = frameBytes - std::min(frameBytes, kFrameOverhead);
  Begin({.command = &kWriteFlash, .id = kWriteFlash.id, .text = WriteText(block, m_position)}, ok,
        "(not recorded)");
}

void Dialogue::Begin(SentRequest request, bool ok, const std::string& bytes) {
  request.time = m_clock();
  if (request.command == &kPositionFlash) m_position = request.argument;
  m_last = std::move(request);
  Put(">", bytes,
      Hex(m_last.id, 3) + "  " + m_last.text + (ok ? "" : "; it could not be sent whole"));
}

void Dialogue::End() {
  m_assembler.Reset();
  if (!m_received.empty()) PutReceived("refused: " + ReasonsOf(m_assembler.Refused()));
  if (m_last.text.empty() || m_last.answered) return;
  Put(" ", "",
      Format("%s    no answer for %.1f s", Hex(m_last.id, 3).c_str(),
             Seconds(m_clock() - m_last.time)));
  std::erase_if(m_unanswered, [&](const SentRequest& other) { return other.id == m_last.id; });
  m_unanswered.push_back(std::exchange(m_last, {}));
}

void Dialogue::BytesReceived(bool ok, Bytes bytes, milliseconds) {
  if (!ok && m_present) Put("!", "", "the device cannot be read");
  m_present = ok;
  if (bytes.empty()) return;
  if (m_testsLine) return Put("<", HexBytes(bytes), "from the line or the device");
  m_receivedAt = m_clock();
  m_received.insert(m_received.end(), bytes.begin(), bytes.end());
  for (const std::uint8_t byte : bytes) m_assembler.PutByte(byte, kFrameCodecs[0]);
  if (const auto message = m_assembler.TakeFrame(kFrameCodecs[0])) {
    TakeAnswer(*message);
  } else if (m_assembler.IsIdle()) {
    PutReceived("refused: " + ReasonsOf(m_assembler.Refused()));
  }
}

void Dialogue::TakeAnswer(const TavoMessage& message) {
  const RefusedBytes others = m_assembler.Refused();
  const std::string text = Hex(message.id, 3) + "    " + Judge(message);
  PutReceived(text + (others.Total() == 0 ? "" : "; also refused: " + ReasonsOf(others)));
}

std::string Dialogue::Judge(const TavoMessage& message) {
  const bool awaited = !m_last.text.empty() && !m_last.answered;
  if (!awaited || message.id != m_last.id) {
    const auto late = std::ranges::find(m_unanswered, message.id, &SentRequest::id);
    if (late != m_unanswered.end()) {
      late->late = m_clock() - late->time;
      return Format("refused: the answer to %s, after %.1f s", late->text.c_str(),
                    Seconds(late->late));
    }
    RefusedBytes refused;
    refused.awaitedId = m_last.id;
    refused.unawaitedId = message.id;
    refused.Add(RefusalReason::Unawaited, 1);
    return awaited ? "refused: " + ReasonsOf(refused) : "refused: no request awaits it";
  }
  m_last.answered = true;
  const Fields& fields = m_last.command == nullptr ? kNothing : RowOf(*m_last.command).answer;
  const std::size_t wanted = LengthOf(fields);
  if (wanted == 0) return "answered";
  if (message.length >= wanted) {
    if (m_shortlyAnswered.command == m_last.command) m_shortlyAnswered = {};
    return TextOf(fields, PayloadOf(message));
  }
  m_last.shortAnswer =
      Format("%u of %zu bytes (%s)", unsigned{message.length}, wanted, TextOf(fields, {}).c_str());
  // Silence of a master, or half an answer, changes nothing.
  const bool matters = m_last.command->bearing != Bearing::ReportsTunnel;
  if (matters && m_shortlyAnswered.text.empty()) m_shortlyAnswered = m_last;
  return "too short: " + m_last.shortAnswer;
}

void Dialogue::Reconnected(bool ok) {
  if (ok) Put("!", "", "the device is back");
}

milliseconds Dialogue::LateAnswerTo(const SentRequest& request) const {
  const auto late = std::ranges::find_if(m_unanswered, [&](const SentRequest& other) {
    return other.id == request.id && other.time == request.time;
  });
  return late == m_unanswered.end() ? milliseconds(0) : late->late;
}

void Dialogue::PutReceived(const std::string& text) {
  Put(m_receivedAt, "<", HexBytes(m_received), text);
  m_received.clear();
  m_assembler.ForgetRefused();
}

void Dialogue::Put(const char* direction, const std::string& bytes, const std::string& text) const {
  Put(m_clock(), direction, bytes, text);
}

void Dialogue::Put(milliseconds time, const char* direction, const std::string& bytes,
                   const std::string& text) const {
  if (m_trace == nullptr) return;
  *m_trace << Format("%9.3f  %s %-23s  ", Seconds(time - m_begin), direction, bytes.c_str()) << text
           << std::endl;
}

}  // namespace tavo::tool
