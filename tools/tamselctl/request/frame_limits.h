#ifndef TAMSELCTL_REQUEST_FRAME_LIMITS_H_
#define TAMSELCTL_REQUEST_FRAME_LIMITS_H_

#include "communication_common.h"
#include "modbus/pdu.h"
#include "modbus/tcp_frame.h"
#include "vlm_rs485.h"

namespace tmsc::ctl {

/// Longest frame that the serial library takes, in bytes.
constexpr int kMaxRtuFrameLength = MAX_XFER_DATA_LENGTH;
/// Most bytes of values in one write whose frame the serial library takes, beside address and CRC.
constexpr int kMaxRtuWriteBytes = kMaxRtuFrameLength - 3 - modbus::kWritePduOverhead;
/// Most bytes of values in one write whose Modbus/TCP frame fits a request.
constexpr int kMaxTcpWriteBytes =
    kMaxSendFrameLength - modbus::kMbapLength - modbus::kWritePduOverhead;
constexpr int kMaxRtuWriteRegisters = kMaxRtuWriteBytes / 2;
constexpr int kMaxTcpWriteRegisters = kMaxTcpWriteBytes / 2;

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_FRAME_LIMITS_H_
