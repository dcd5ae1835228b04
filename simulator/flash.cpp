#include "simulator/flash.h"

#include <algorithm>
#include <random>

namespace tavosim {
namespace {

constexpr std::uint8_t kErased = 0xFF;
constexpr std::size_t kReferenceSize = 4;

std::span<const std::uint8_t> Checked(std::span<const std::uint8_t> bytes) {
  return bytes.first(bytes.size() - kReferenceSize);
}

}  // namespace

std::vector<std::uint8_t> OldFirmware(std::size_t size, std::uint32_t seed) {
  std::minstd_rand random(seed);
  std::vector<std::uint8_t> bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8U);
  const auto crc = Crc32(Checked(bytes));
  for (std::size_t i = 0; i < kReferenceSize; ++i) {
    bytes[size - kReferenceSize + i] = static_cast<std::uint8_t>(crc >> (8 * i));
  }
  return bytes;
}

Flash::Flash(std::uint32_t start, std::size_t size)
    : m_start(start), m_bytes(std::max(size, kReferenceSize), kErased) {}

void Flash::Erase() {
  std::fill(m_bytes.begin(), m_bytes.end(), kErased);
  ForgetPosition();
  ++m_erases;
}

bool Flash::Position(std::uint32_t address) {
  if (address < m_start || address - m_start > m_bytes.size()) return Refuse();
  m_offset = address - m_start;
  m_positioned = true;
  return true;
}

bool Flash::Write(std::span<const std::uint8_t> block, bool addressAdvances) {
  if (!m_positioned || block.size() > m_bytes.size() - m_offset) return Refuse();
  for (std::size_t i = 0; i < block.size(); ++i) m_bytes[m_offset + i] &= block[i];
  if (addressAdvances) m_offset += block.size();
  return true;
}

bool Flash::Load(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != m_bytes.size()) return false;
  m_bytes.assign(bytes.begin(), bytes.end());
  return true;
}

std::uint32_t Flash::CalculatedChecksum() const { return Crc32(Checked(m_bytes)); }

std::uint32_t Flash::ReferenceChecksum() const {
  std::uint32_t value = 0;
  for (auto byte = m_bytes.rbegin(); byte != m_bytes.rbegin() + kReferenceSize; ++byte) {
    value = value << 8U | *byte;
  }
  return value;
}

bool Flash::Refuse() {
  ++m_refusals;
  return false;
}

}  // namespace tavosim
