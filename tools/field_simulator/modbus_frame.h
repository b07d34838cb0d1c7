#ifndef TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_
#define TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_

#include <cstddef>
#include <cstdint>

#include "answer.h"

namespace tmsc::simulator {

/// How Modbus requests and replies travel.
enum class Transport {
  kTcp,  ///< MBAP header of seven bytes, the unit its last, then the function code.
  kRtu,  ///< Address, function code, ..., CRC of two bytes.
};

constexpr std::size_t kCrcLength = 2;

/// Where the function code is in a frame; the unit or address is the byte before it.
constexpr std::size_t FunctionOffset(Transport transport) {
  return transport == Transport::kTcp ? 7 : 1;
}

/// The big-endian number of 16 bits at this offset.
constexpr int BigEndian(const std::uint8_t* bytes) {
  return (bytes[0] << 8) | bytes[1];
}

/// The length that a request has at least, from its first byte through its announced data, without
/// a CRC. Exact for the usual functions once that many bytes are there; for a function that is not
/// known it ends with the function code. The function code must be there.
std::size_t NeededRequestLength(const Bytes& request, Transport transport);

/// Puts the right CRC over the last two bytes of an RTU frame of at least two bytes.
void SetCrc(Bytes* frame);

/// True when the first `length` bytes are an RTU frame with the right CRC.
bool HasRightCrc(const Bytes& bytes, std::size_t length);

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_
