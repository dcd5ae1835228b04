#include "simulator/cdc_function.h"

#include <algorithm>
#include <utility>

namespace tavosim {
namespace {

constexpr std::uint8_t kNotification = 0x83;  // interrupt IN, which never has anything to report

enum CdcRequest : std::uint8_t {
  kSetLineCoding = 0x20,
  kGetLineCoding = 0x21,
  kSetControlLineState = 0x22,
};

constexpr std::array<std::uint8_t, 7> kPowerOnLineCoding{0x80, 0x25, 0, 0, 0, 0, 8};  // 9600 8N1

// clang-format off
constexpr std::uint8_t kDevice[]{
  18, 1, 0x00, 0x02,                 // USB 2.0
  0x02, 0, 0, 64,                    // communication class, 64 bytes at endpoint 0
  0xEB, 0x03, 0x04, 0x24,            // 03EB:2404
  0x00, 0x01, 1, 2, 3, 1};           // release 1.00, three strings, one configuration

constexpr std::uint8_t kConfiguration[]{
  9, 2, 67, 0, 2, 1, 0, 0xC0, 50,    // two interfaces, self-powered, 100 mA
  9, 4, 0, 0, 1, 0x02, 0x02, 1, 0,   // interface 0: communication, abstract control model
  5, 0x24, 0x00, 0x10, 0x01,         //   header: CDC 1.10
  5, 0x24, 0x01, 0x00, 1,            //   call management: none, data on interface 1
  4, 0x24, 0x02, 0x02,               //   abstract control: line coding and control lines
  5, 0x24, 0x06, 0, 1,               //   union: 0 controls 1
  7, 5, kNotification, 3, 8, 0, 16,  //   interrupt IN, 8 bytes, every 16 ms
  9, 4, 1, 0, 2, 0x0A, 0, 0, 0,      // interface 1: data
  7, 5, kBulkOut, 2, kPacketSize, 0, 0,
  7, 5, kBulkIn, 2, kPacketSize, 0, 0};
// clang-format on
static_assert(sizeof(kConfiguration) == 67, "the length that the descriptor itself names");

}  // namespace

CdcFunction::CdcFunction(Device& device, const LineOptions& line, UsbStrings strings)
    : UsbFront(device, line, std::move(strings)), m_lineCoding(kPowerOnLineCoding) {}

std::vector<std::uint8_t> CdcFunction::DeviceDescriptor() const {
  return {std::begin(kDevice), std::end(kDevice)};
}

std::vector<std::uint8_t> CdcFunction::ConfigurationDescriptor() const {
  return {std::begin(kConfiguration), std::end(kConfiguration)};
}

UsbResult CdcFunction::FunctionRequest(const SetupPacket& setup,
                                       std::span<const std::uint8_t> out) {
  switch (setup.request) {
    case kSetLineCoding: return SetLineCoding(out);
    case kGetLineCoding: return {UsbStatus::Done, {m_lineCoding.begin(), m_lineCoding.end()}};
    case kSetControlLineState: SetControlLines(setup.value); return {};
    default: return {UsbStatus::Stall};
  }
}

UsbResult CdcFunction::SetLineCoding(std::span<const std::uint8_t> coding) {
  if (coding.size() != m_lineCoding.size()) return {UsbStatus::Stall};
  std::copy(coding.begin(), coding.end(), m_lineCoding.begin());
  return {};
}

// Bytes that arrived while no host listened are lost, not late.
void CdcFunction::SetControlLines(std::uint16_t lines) {
  if (!DtrRaised()) SerialLine().DropTowardsHost();
  m_controlLines = lines;
}

UsbResult CdcFunction::Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) {
  if (endpoint == kNotification) return {UsbStatus::NotReady};
  if (endpoint != kBulkIn) return {UsbStatus::Stall};
  if (!DtrRaised()) return {UsbStatus::NotReady};
  auto data = SerialLine().Receive(capacity, now);
  if (data.empty()) return {UsbStatus::NotReady};
  return {UsbStatus::Done, std::move(data)};
}

void CdcFunction::ResetFunction() {
  m_lineCoding = kPowerOnLineCoding;
  m_controlLines = 0;
}

}  // namespace tavosim
