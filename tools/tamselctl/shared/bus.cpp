#include "shared/bus.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>

#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "shared/number_option.h"
#include "shared/usage.h"
#include "tamsel_health.h"

namespace tmsc::ctl {
namespace {

void CheckAdded(const Device& device, const BuildError& error) {
  if (error) {
    ThrowUsage("device " + std::to_string(device.address), *error);
  }
}

TcpIpRequest BuildTcpIpRequest(const Bus& bus, const std::vector<Device>& devices) {
  TcpIpRequest request = MakeTcpIpRequest(bus.channel);
  for (const Device& device : devices) {
    CheckAdded(device, AddTcpIpDevice(request, device.address, device.ip_address, device.port,
                                      bus.timeout_ms, device.frame));
  }
  return request;
}

Rs485Request BuildRs485Request(const Bus& bus, const std::vector<Device>& devices) {
  Rs485Request request = MakeRs485Request(bus.channel, bus.baud->code);
  SetPortParams parameters{};
  parameters.databits = bus.line.code;
  parameters.timeout = static_cast<std::int16_t>(bus.timeout_ms);
  parameters.delimitertype = bus.delimiter ? bus.delimiter->value : byte{0};
  parameters.byte_after_delimiter =
      bus.delimiter ? bus.delimiter->bytes_after : static_cast<byte>(bus.silence_ms);
  parameters.com_wait_time = static_cast<byte>(bus.wait_ms);
  for (const Device& device : devices) {
    parameters.address = static_cast<byte>(device.address);
    CheckAdded(device, AddRs485Device(request, parameters, device.frame));
  }
  return request;
}

}  // namespace

int Bus::Transport() const {
  return IsRs485() ? TAMSEL_HEALTH_RS485 : TAMSEL_HEALTH_TCPIP;
}

CLI::Option* AddBusOptions(CLI::App& command, Bus& bus) {
  constexpr int kLongestTimeoutMs = std::numeric_limits<std::int16_t>::max();
  AddNumber(command, "--channel", bus.channel, 1, kMaxChannel, "Channel, 1 to 3");
  AddNumber(command, "--timeout", bus.timeout_ms, 1, kLongestTimeoutMs,
            "Milliseconds, over TCP/IP for the connect and for each send and receive of a device, "
            "over RS485 from the end of its frame to the end of its answer (default: " +
                std::to_string(bus.timeout_ms) + ")");
  CLI::Option* baud =
      AddLineOptions(command,
                     "Speed in bits a second; the devices are reached over RS485, and the frames "
                     "made for them are Modbus RTU",
                     bus.baud, bus.line);
  CLI::Option* silence =
      AddNumber(command, "--silence", bus.silence_ms, 0, 255,
                "RS485: milliseconds of silence that end an answer, never less than 3.5 "
                "characters (default: 0)")
          ->needs(baud);
  command
      .add_option_function<std::string>(
          "--delimiter",
          [&bus](const std::string& text) {
            bus.delimiter = ParseDelimiter(text);
            if (!bus.delimiter) {
              ThrowUsage("--delimiter", text + " is not BYTE[,AFTER] with 1 to 255 and 0 to 255");
            }
          },
          "RS485: the byte that ends an answer in place of silence, and how many more follow it")
      ->type_name("BYTE[,AFTER]")
      ->needs(baud)
      ->excludes(silence);
  AddNumber(command, "--wait", bus.wait_ms, 0, 255,
            "RS485: milliseconds of silence before each device is addressed (default: 0)")
      ->needs(baud);
  return baud;
}

std::string PlaceText(const Bus& bus, const Device& device) {
  return (bus.IsRs485() ? std::string(bus.baud->name) + " " + bus.line.name
                        : device.ip_address + ":" + std::to_string(device.port)) +
         (device.unit == device.address ? "" : " unit " + std::to_string(device.unit));
}

std::vector<byte> MakeFrame(const Bus& bus, int transaction, int unit,
                            const std::vector<byte>& pdu) {
  return bus.IsRs485() ? modbus::RtuFrame(unit, pdu) : modbus::TcpFrame(transaction, unit, pdu);
}

Request BuildRequest(const Bus& bus, const std::vector<Device>& devices) {
  return bus.IsRs485() ? Request(BuildRs485Request(bus, devices))
                       : Request(BuildTcpIpRequest(bus, devices));
}

// TCP/IP devices are served side by side: each may take its time-out for the connect, the send,
// some receives and the wait for late bytes, which the daemon itself bounds by 5 s. RS485 devices
// take turns: each may take its wait, its time-out and the time of its frame, which is below 1 s
// even at the lowest speed.
int DeadlineMs(const Bus& bus, std::size_t devices) {
  constexpr int kOfDaemonMs = 10000;
  return kOfDaemonMs + (bus.IsRs485()
                            ? static_cast<int>(devices) * (bus.timeout_ms + bus.wait_ms + 1000)
                            : 6 * bus.timeout_ms);
}

}  // namespace tmsc::ctl
