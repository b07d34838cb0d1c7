#ifndef TAMSELCTL_SHARED_BUS_H_
#define TAMSELCTL_SHARED_BUS_H_

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "communication_common.h"
#include "request_builder.h"
#include "shared/arguments.h"
#include "shared/serial_codes.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tmsc::ctl {

/// A channel and how its devices are reached: over RS485 when there is a speed, else over TCP/IP.
struct Bus {
  int channel = 0;
  int timeout_ms = 1000;

  // Of RS485; they come only together with a speed.
  std::optional<SerialCode> baud;
  SerialCode line = kDefaultLine;
  int silence_ms = 0;
  std::optional<Delimiter> delimiter;  // none: an answer ends with silence
  int wait_ms = 0;

  bool IsRs485() const { return baud.has_value(); }
  /// TAMSEL_HEALTH_RS485 or TAMSEL_HEALTH_TCPIP.
  int Transport() const;
};

/// A device of a bus with the frame for it.
struct Device {
  int address = 0;         // of its slot, 1 to 31
  int unit = 0;            // Modbus unit in the frame; the address where there is no such thing
  std::string ip_address;  // over TCP/IP
  int port = 502;          // over TCP/IP
  std::vector<byte> frame;
};

/// Adds --channel, --timeout and the options of RS485; the parse leaves them in `bus`, which must
/// outlive it and holds the defaults. Returns --baud.
CLI::Option* AddBusOptions(CLI::App& command, Bus& bus);

/// Where a device is, for people: IP:PORT, or speed and format of the line, and its unit when that
/// is not its address.
std::string PlaceText(const Bus& bus, const Device& device);

/// A PDU as a frame for a unit of the bus. The devices of one request have transactions of their
/// own.
std::vector<byte> MakeFrame(const Bus& bus, int transaction, int unit,
                            const std::vector<byte>& pdu);

using Request = std::variant<TcpIpRequest, Rs485Request>;

/// The request to the devices, of which there are 1 to 31. One that cannot be is thrown as by
/// ThrowUsage.
Request BuildRequest(const Bus& bus, const std::vector<Device>& devices);

/// Milliseconds after which an exchange of so many devices must have ended.
int DeadlineMs(const Bus& bus, std::size_t devices);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_BUS_H_
