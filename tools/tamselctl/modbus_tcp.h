/// Modbus/TCP frames: a PDU behind the MBAP header (transaction, protocol, length, unit), as the
/// "MODBUS Messaging on TCP/IP Implementation Guide" V1.0b defines them.
#ifndef TAMSELCTL_MODBUS_TCP_H_
#define TAMSELCTL_MODBUS_TCP_H_

#include <vector>

#include "communication_common.h"
#include "modbus_pdu.h"

namespace tmsc {

/// Bytes of the MBAP header.
constexpr int kMbapLength = 7;
/// Most registers of one write whose frame fits a request.
constexpr int kMaxTcpWriteRegisters = (kMaxSendFrameLength - kMbapLength - kWritePduOverhead) / 2;

/// Puts the MBAP header before a PDU.
std::vector<byte> ModbusTcpFrame(int transaction, int unit, const std::vector<byte>& pdu);

/// Checks `answer` against the frame it answers. A frame that is no Modbus/TCP itself says nothing
/// about its answer, which then counts as good.
ModbusAnswer CheckModbusTcpAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer);

}  // namespace tmsc

#endif  // TAMSELCTL_MODBUS_TCP_H_
