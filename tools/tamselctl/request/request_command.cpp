#include "request/request_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "request/request_devices.h"
#include "request/request_options.h"
#include "request/request_report.h"
#include "shared/daemon_options.h"
#include "shared/exit_code.h"
#include "shared/interrupt_notice.h"
#include "status_text.h"
#include "tamsel_client.h"
#include "utility/deadline.h"

namespace tmsc::ctl {
namespace {

constexpr int kBusyRetryMs = 50;

// TCP/IP devices are served side by side: each may take its time-out for the connect, the send,
// some receives and the wait for late bytes, which the daemon itself bounds by 5 s. RS485 devices
// take turns: each may take its wait, its time-out and the time of its frame, which is below 1 s
// even at the lowest speed.
int DeadlineMs(const Options& options) {
  constexpr int kOfDaemonMs = 10000;
  const int of_devices_ms = options.IsRs485() ? static_cast<int>(options.devices.size()) *
                                                    (options.timeout_ms + options.wait_ms + 1000)
                                              : 6 * options.timeout_ms;
  return options.deadline_ms.value_or(of_devices_ms + kOfDaemonMs);
}

// The daemon ends an exchange that it has begun, whether or not somebody still waits for it.
template <typename Request>
ExchangeResult ExchangeOnce(const TamselClient& client, const Request& request,
                            const Options& options) {
  const InterruptNotice notice("tamselctl: interrupted; channel " +
                               std::to_string(options.channel) +
                               " stays busy until the exchange ends\n");
  return client.Exchange(request, DeadlineMs(options));
}

// Repeats the exchange while the channel is busy and the time to wait for it lasts.
template <typename Request>
ExchangeResult ExchangeUnlessBusy(const Request& request, const Options& options,
                                  RequestReport& report) {
  const TamselClient client(SocketPath(options.daemon));
  const Deadline busy_deadline{std::chrono::milliseconds(options.busy_wait_ms)};
  while (true) {
    const auto begin = Deadline::Clock::now();
    ExchangeResult result = ExchangeOnce(client, request, options);
    const auto elapsed = Deadline::Clock::now() - begin;
    report.elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    const bool is_busy =
        result.outcome == Outcome::kAnswered &&
        result.response.receive_data.status == kDeviceCommunicationChannelBusyError;
    if (!is_busy || busy_deadline.HasPassed()) {
      return result;
    }
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::min(kBusyRetryMs, busy_deadline.RemainingMs())));
  }
}

// The exit status of a request that came to no device answers; kExitOk for any other.
int ExitCodeOfRequest(const ExchangeResult& result) {
  switch (result.outcome) {
    case Outcome::kAnswered:
      break;
    case Outcome::kClosedWithoutAnswer:
      return kExitRequestFailed;
    default:
      return kExitNoDaemon;
  }
  switch (result.response.receive_data.status) {
    case kDeviceCommunicationStatusNoError:
      return kExitOk;
    case kDeviceCommunicationChannelBusyError:
      return kExitBusy;
    default:
      return kExitRequestFailed;
  }
}

int RunRequest(const Options& options) {
  const std::vector<Device> devices = MakeDevices(options);
  RequestReport report;
  report.channel = options.channel;
  const ExchangeResult result =
      options.IsRs485() ? ExchangeUnlessBusy(BuildRs485Request(devices, options), options, report)
                        : ExchangeUnlessBusy(BuildTcpIpRequest(devices, options), options, report);
  if (const int exit_code = ExitCodeOfRequest(result); exit_code != kExitOk) {
    std::cerr << "tamselctl: channel " << options.channel << ": "
              << (result.outcome == Outcome::kAnswered
                      ? StatusText(result.response.receive_data.status)
                      : result.text)
              << '\n';
    return exit_code;
  }
  bool is_good = true;
  for (const Device& device : devices) {
    report.devices.push_back(ReportDevice(device, options, result.response));
    is_good = is_good && report.devices.back().is_good;
  }
  (options.format == "json" ? PrintJson : PrintTable)(std::cout, report);
  return is_good ? kExitOk : kExitDeviceFailed;
}

}  // namespace

void AddRequestCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand(
      "request", "Send one request to devices of a channel and print their answers");
  command.footer(std::string("Numbers are decimal, or hexadecimal after 0x.\n\n") + kExitCodeHelp);
  AddRequestOptions(command, *options);
  command.callback([options, &exit_code] { exit_code = RunRequest(*options); });
}

}  // namespace tmsc::ctl
