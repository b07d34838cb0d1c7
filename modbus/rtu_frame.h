/// Modbus RTU frames: address, PDU and CRC-16, as "MODBUS over Serial Line" V1.02
/// defines them.
#ifndef MODBUS_RTU_FRAME_H_
#define MODBUS_RTU_FRAME_H_

#include <cstddef>
#include <cstdint>

#include "modbus/pdu.h"

namespace modbus {

/// Puts a PDU between the address, 0 for a broadcast, and the CRC.
Bytes RtuFrame(int address, const Bytes& pdu);

/// Bytes that an answer has as a whole, CRC included, by its function code and byte count
/// ("MODBUS Application Protocol" V1.1b3, 6); 0 as long as the first `count` bytes do not tell, and
/// for a function whose answers do not tell their length.
std::size_t RtuAnswerLength(const std::uint8_t* bytes, std::size_t count);

/// Checks `answer` against the frame it answers. It has its CRC in any case; a frame that is no
/// Modbus RTU itself says nothing more about its answer, which then counts as good.
AnswerCheck CheckRtuAnswer(const Bytes& frame, const Bytes& answer);

/// Who the `answer_length` bytes are from that came behind a frame; they fit it by address and
/// function, an exception's too, or are from elsewhere. A frame that is no Modbus RTU itself says
/// nothing about its answer. Needs no memory.
AnswerOrigin OriginOfRtuAnswer(const std::uint8_t* frame, std::size_t frame_length,
                               const std::uint8_t* answer, std::size_t answer_length);

}  // namespace modbus

#endif  // MODBUS_RTU_FRAME_H_
