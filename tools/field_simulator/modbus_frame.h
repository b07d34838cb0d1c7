#ifndef TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_
#define TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_

#include <cstddef>

#include "answer.h"
#include "modbus/tcp_frame.h"

namespace tmsc::simulator {

/// How Modbus requests and replies travel.
enum class Transport {
  kTcp,  ///< MBAP header of seven bytes, the unit its last, then the function code.
  kRtu,  ///< Address, function code, ..., CRC of two bytes.
};

/// Where the length field of a Modbus/TCP frame is. It counts the bytes from the unit on.
constexpr std::size_t kLengthOffset = 4;
constexpr std::size_t kUnitOffset = 6;
/// Bytes of the CRC of an RTU frame.
constexpr std::size_t kCrcLength = 2;

/// Where the function code is in a frame; the unit or address is the byte before it.
constexpr std::size_t FunctionOffset(Transport transport) {
  return transport == Transport::kTcp ? modbus::kMbapLength : 1;
}

/// The length of the shortest frame that can be damaged or altered: a Modbus/TCP header; address,
/// function code and CRC.
constexpr std::size_t ShortestFrame(Transport transport) {
  return transport == Transport::kTcp ? modbus::kMbapLength : 2 + kCrcLength;
}

/// The length that a request has at least, from its first byte through its announced data, without
/// a CRC. Exact for the usual functions once that many bytes are there; for a function that is not
/// known it ends with the function code. The function code must be there.
std::size_t NeededRequestLength(const Bytes& request, Transport transport);

/// True when the first `length` bytes are an RTU frame with the right CRC.
bool IsRtuFrame(const Bytes& bytes, std::size_t length);

/// Moves the first `count` bytes, which are there, out of the input.
Bytes TakeFirst(Bytes& input, std::size_t count);

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_MODBUS_FRAME_H_
