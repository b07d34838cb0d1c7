/// Modbus RTU frames: address, PDU and CRC-16, as "MODBUS over Serial Line" V1.02
/// defines them.
#ifndef TAMSELCTL_MODBUS_RTU_H_
#define TAMSELCTL_MODBUS_RTU_H_

#include <vector>

#include "communication_common.h"
#include "modbus_pdu.h"
#include "vlm_rs485.h"

namespace tmsc {

/// Longest frame that the serial library takes, in bytes.
constexpr int kMaxRtuFrameLength = MAX_XFER_DATA_LENGTH;
/// Most registers of one write whose frame the serial library takes, beside address and CRC.
constexpr int kMaxRtuWriteRegisters = (kMaxRtuFrameLength - 3 - kWritePduOverhead) / 2;

/// Appends the CRC of `bytes` to them, low byte first.
void AppendModbusCrc(std::vector<byte>& bytes);

/// Puts a PDU between the address, 0 for a broadcast, and the CRC.
std::vector<byte> ModbusRtuFrame(int address, const std::vector<byte>& pdu);

/// Checks that `answer` ends with its CRC, and nothing else.
ModbusAnswer CheckModbusCrc(const std::vector<byte>& answer);

/// Checks `answer` against the frame it answers, one that ModbusRtuFrame has made.
ModbusAnswer CheckModbusRtuAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer);

}  // namespace tmsc

#endif  // TAMSELCTL_MODBUS_RTU_H_
