#include "modbus/crc16.h"

namespace modbus {

std::uint16_t Crc16(const std::uint8_t* bytes, std::size_t count) {
  constexpr unsigned int kReversedPolynomial = 0xA001;
  unsigned int crc = 0xFFFF;
  for (std::size_t index = 0; index < count; ++index) {
    crc ^= bytes[index];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? crc >> 1 ^ kReversedPolynomial : crc >> 1;
    }
  }
  return static_cast<std::uint16_t>(crc);
}

void AppendCrc(Bytes& bytes) {
  const unsigned int crc = Crc16(bytes.data(), bytes.size());
  bytes.push_back(static_cast<std::uint8_t>(crc & 0xFF));
  bytes.push_back(static_cast<std::uint8_t>(crc >> 8));
}

// The CRC over bytes and their own CRC is 0.
bool HasRightCrc(const std::uint8_t* bytes, std::size_t count) {
  return count > 2 && Crc16(bytes, count) == 0;
}

}  // namespace modbus
