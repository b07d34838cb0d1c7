/// Modbus/TCP frames: a PDU behind the MBAP header (transaction, protocol, length, unit), as the
/// "MODBUS Messaging on TCP/IP Implementation Guide" V1.0b defines them.
#ifndef MODBUS_TCP_FRAME_H_
#define MODBUS_TCP_FRAME_H_

#include <cstddef>
#include <cstdint>

#include "modbus/pdu.h"

namespace modbus {

/// Bytes of the MBAP header.
constexpr int kMbapLength = 7;

/// Puts the MBAP header before a PDU.
Bytes TcpFrame(int transaction, int unit, const Bytes& pdu);

/// Checks `answer` against the frame it answers. A frame that is no Modbus/TCP itself says nothing
/// about its answer, which then counts as good.
AnswerCheck CheckTcpAnswer(const Bytes& frame, const Bytes& answer);

/// Who the `answer_length` bytes are from that came behind a frame. There are devices that do not
/// repeat the transaction, and others the unit: an answer from elsewhere fits neither by its
/// transaction nor by its unit and function, an exception's too. A frame that is no Modbus/TCP
/// itself says nothing about its answer. Needs no memory.
AnswerOrigin OriginOfTcpAnswer(const std::uint8_t* frame, std::size_t frame_length,
                               const std::uint8_t* answer, std::size_t answer_length);

}  // namespace modbus

#endif  // MODBUS_TCP_FRAME_H_
