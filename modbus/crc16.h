/// The check sum of Modbus RTU frames, "MODBUS over Serial Line" V1.02, 6.2.2.
#ifndef MODBUS_CRC16_H_
#define MODBUS_CRC16_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace modbus {

using Bytes = std::vector<std::uint8_t>;

/// CRC-16 of `count` bytes: polynomial 0xA001 reflected, start value 0xFFFF.
std::uint16_t Crc16(const std::uint8_t* bytes, std::size_t count);

/// Appends the CRC of `bytes` to them, low byte first.
void AppendCrc(Bytes& bytes);

/// Whether the last two of `count` bytes are the CRC of those before them, of which there is one at
/// least.
bool HasRightCrc(const std::uint8_t* bytes, std::size_t count);

}  // namespace modbus

#endif  // MODBUS_CRC16_H_
