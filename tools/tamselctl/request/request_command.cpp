#include "request/request_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "request/request_devices.h"
#include "request/request_options.h"
#include "request/request_report.h"
#include "request/request_site.h"
#include "request/statistics.h"
#include "shared/exit_code.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  tamselctl request --channel 1 --device 16-18=192.0.2.10:502 --read-holding 0,2\n"
    "  tamselctl request --channel 2 --baud 19200 --device 1-31 --read-input 30,2 --type i32\n"
    "  tamselctl request --channel 3 --device 1-10=192.0.2.9:502 --unit 101-110 \\\n"
    "    --read-holding 0,1 --watch 5 --count 60\n"
    "  tamselctl request --site site.json inverter-17\n\n"
    "Numbers are decimal, or hexadecimal after 0x. START is the number in the frame, from 0 on:\n"
    "40001 of many manuals is holding register 0.\n\n";

/// A request and its repetitions.
class RequestRun {
 public:
  explicit RequestRun(const Options& options)
      : options_(options),
        batches_(options.site.empty() ? std::vector<Batch>{MakeBatch(options)}
                                      : MakeSiteBatches(options)),
        exchanger_(options.daemon, Purpose::kDevices, options.busy_wait_ms, options.deadline_ms,
                   interruption_, progress_) {}

  int Run() {
    if (!options_.watch_ms) {
      RunRound();
    } else {
      Watch();
    }
    return interruption_.Signal() != 0 ? interruption_.ExitCode() : exit_code_;
  }

 private:
  // False when it was interrupted.
  bool RunRound() {
    for (const Batch& batch : batches_) {
      const auto report = Ask(exchanger_, batch);
      if (!report) {
        return false;
      }
      progress_.Clear();
      const auto print = options_.is_json        ? PrintJson
                         : options_.site.empty() ? PrintTable
                                                 : PrintNamed;
      print(std::cout, *report);
      TellOfDrain(*report);
      statistics_.Add(*report);
      exit_code_ = report->exit_code == kExitOk ? exit_code_ : report->exit_code;
      if (report->exit_code == kExitNoDaemon) {
        break;
      }
    }
    return true;
  }

  // Once: why a request lasts a whole time-out longer than its devices.
  void TellOfDrain(const RequestReport& report) {
    const auto is_drained = [&report](const DeviceReport& device) {
      return device.is_good && device.end && device.end->response_ms &&
             *device.end->response_ms + report.bus.timeout_ms <=
                 static_cast<double>(report.elapsed_ms + 1);
    };
    if (!options_.is_json && !report.bus.IsRs485() && !report.devices.empty() &&
        std::all_of(report.devices.begin(), report.devices.end(), is_drained) &&
        !std::exchange(is_drain_told_, true)) {
      std::cerr << "tamselctl: behind each answer the daemon waited for silence as long as the "
                   "time-out; TcpDrainTimeout in its settings makes that shorter\n";
    }
  }

  void Watch() {
    const std::chrono::milliseconds period(*options_.watch_ms);
    auto next = std::chrono::steady_clock::now();
    for (int round = 0; !options_.count || round < *options_.count; ++round) {
      using std::chrono::milliseconds;
      const auto rest = next - std::chrono::steady_clock::now();
      const auto pause = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(rest));
      if (!interruption_.Sleep(pause)) {
        break;
      }
      if (!options_.is_json) {
        std::cout << TimeText(NowMs()) << '\n';
      }
      next = std::max(next + period, std::chrono::steady_clock::now());
      if (!RunRound() || !std::cout.flush()) {
        break;
      }
    }
    progress_.Clear();
    if (options_.is_json) {
      statistics_.PrintJson(std::cout);
    } else {
      statistics_.PrintTable(std::cout);
      if (!exchanger_.HasHealth()) {
        std::cout << "The times of devices are known when the daemon keeps their health "
                     "(HealthFilePath).\n";
      }
    }
  }

  const Options& options_;
  const std::vector<Batch> batches_;
  const Interruption interruption_;
  Progress progress_;
  Exchanger exchanger_;
  Statistics statistics_;
  int exit_code_ = kExitOk;
  bool is_drain_told_ = false;
};

}  // namespace

void AddRequestCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand(
      "request", "Send one request to devices of a channel and print their answers");
  command.footer(std::string(kExamples) + kExitCodeHelp);
  AddRequestOptions(command, *options);
  command.callback([options, &command, &exit_code] {
    if (!options->site.empty()) {
      CheckSiteOptions(command);
    }
    exit_code = RequestRun(*options).Run();
  });
}

}  // namespace tmsc::ctl
