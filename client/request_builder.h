#ifndef TAMSEL_REQUEST_BUILDER_H_
#define TAMSEL_REQUEST_BUILDER_H_

#include <optional>
#include <string>
#include <vector>

#include "wire_records.h"

namespace tmsc {

/// Whole requests, exactly as they go over the socket.
using TcpIpRequest = tamsel_tcpip_request;
using Rs485Request = tamsel_rs485_request;

/// What is wrong with a device that was not added, for people to read; empty when it was added.
using BuildError = std::optional<std::string>;

/// A request for `channel` (1 to kMaxChannel; the daemon refuses others without an answer) with no
/// device in it. All other bytes are zero.
TAMSEL_API TcpIpRequest MakeTcpIpRequest(int channel);

/// As MakeTcpIpRequest, for RS485. `baud_code` is the serial library's code.
TAMSEL_API Rs485Request MakeRs485Request(int channel, byte baud_code);

/// Puts a device into the request. `address` is 1 to 31 and not in the request yet, `ip_address` a
/// dotted IPv4 address, `port` 1 to 65535, `frame` 1 to kMaxSendFrameLength bytes. `timeout_ms`, 0
/// to 32767, bounds the connect and each send and receive; 0 is no limit. The request is unchanged
/// when an error is returned.
TAMSEL_API BuildError AddTcpIpDevice(TcpIpRequest& request, int address,
                                     const std::string& ip_address, int port, int timeout_ms,
                                     const std::vector<byte>& frame);

/// As AddTcpIpDevice, for RS485: `port_params` carries the address, 1 to 31, and the serial
/// library's parameters, which are passed on as they are. A frame whose first byte is 0 is a
/// broadcast: it brings no answer.
TAMSEL_API BuildError AddRs485Device(Rs485Request& request, const SetPortParams& port_params,
                                     const std::vector<byte>& frame);

}  // namespace tmsc

#endif  // TAMSEL_REQUEST_BUILDER_H_
