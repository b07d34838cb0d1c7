#include "scan/scan_options.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <numeric>

#include "shared/number_option.h"
#include "shared/ranges_option.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

constexpr int kLastUnit = 247;  // the last address of a Modbus device
constexpr int kAtOnceOverTcpIp = 4;

void AddGateway(CLI::App& command, ScanOptions& options) {
  command
      .add_option_function<std::string>(
          "--gateway",
          [&options](const std::string& text) {
            const std::size_t colon = text.find(':');
            options.ip_address = text.substr(0, colon);
            const auto port = colon == std::string::npos
                                  ? std::optional(options.port)
                                  : ParseNumber(text.substr(colon + 1), 1, 65535);
            if (!port || options.ip_address.empty()) {
              ThrowUsage("--gateway", text + " is not IP[:PORT]");
            }
            options.port = *port;
          },
          "Ask the units behind this Modbus/TCP gateway (default port: 502)")
      ->type_name("IP[:PORT]");
}

}  // namespace

ScanOptions::ScanOptions() {
  constexpr int kShortTimeoutMs = 300;
  bus.timeout_ms = kShortTimeoutMs;
}

void AddScanOptions(CLI::App& command, ScanOptions& options) {
  AddGateway(command, options);
  AddRanges(
      command, "--unit", options.units, 1, kLastUnit, "a number or range of 1 to 247",
      "Addresses on the bus, or units of the gateway, to ask (default: 1-31 over RS485, 1-247 "
      "of a gateway)")
      ->type_name("NUMBERS");
  CLI::App* read = command.add_option_group("read",
                                            "What to ask for; a Modbus exception is an answer, too "
                                            "(default: --read-holding 0,1)");
  AddReadOptions(*read, options.reads);
  read->require_option(0, 1);
  AddNumber(
      command, "--at-once", options.at_once, 1, kMaxDeviceCountAtChannel,
      "Units in one request (default: 4 of a gateway, each on a connection of its own; 1 over "
      "RS485, where more take turns and save the daemon's wait before each request)");
  AddBusOptions(command, options.bus)->excludes(command.get_option("--gateway"));
  command.get_option("--channel")->required();
  AddDaemonOptions(command, options.daemon);
  AddNumber(command, "--busy-wait", options.busy_wait_ms, 0, std::numeric_limits<int>::max(),
            "Milliseconds to try again for while the channel is busy (default: 5000)");
  command.add_flag("--json", options.is_json, "Print one object of JSON");
}

void CompleteScanOptions(ScanOptions& options) {
  const bool is_rs485 = options.bus.IsRs485();
  if (!is_rs485 && options.ip_address.empty()) {
    ThrowUsage("--gateway", "what to scan: a --gateway, or a bus with its --baud");
  }
  if (options.units.empty()) {
    options.units.resize(is_rs485 ? kMaxDeviceCountAtChannel : kLastUnit);
    std::iota(options.units.begin(), options.units.end(), 1);
  }
  if (!options.at_once) {
    options.at_once = is_rs485 ? 1 : kAtOnceOverTcpIp;
  }
}

}  // namespace tmsc::ctl
