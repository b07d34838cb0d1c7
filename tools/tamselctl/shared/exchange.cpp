#include "shared/exchange.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <string_view>
#include <utility>

#include "health_reader.h"
#include "logger_setting/logger_setting_manager.h"
#include "shared/exit_code.h"
#include "shared/regular_file.h"
#include "shared/times.h"
#include "status_text.h"
#include "utility/deadline.h"

namespace tmsc::ctl {
namespace {

constexpr std::chrono::milliseconds kBusyPace{50};

bool IsBusy(const ExchangeResult& result) {
  return result.outcome == Outcome::kAnswered &&
         result.response.receive_data.status == kDeviceCommunicationChannelBusyError;
}

void MarkAsScan(DataHeader& header) {
  constexpr std::string_view kMark = TAMSEL_SCAN_MARK;
  kMark.copy(reinterpret_cast<char*>(header.buffer), sizeof(header.buffer));
}

// A daemon that another socket belongs to keeps its health elsewhere.
std::string HealthOf(const DaemonOptions& daemon, const std::string& socket_path) {
  if (daemon.settings_path.empty() && !OpenRegularFile(DefaultSettingsPath()).obstacle.empty()) {
    return {};
  }
  const std::string path = HealthFilePath(daemon);
  return daemon.settings_path.empty() && LoggerSettingManager().GetComSocketPath() != socket_path
             ? std::string()
             : path;
}

}  // namespace

int Exchange::ExitCode() const {
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

std::string Exchange::ErrorText() const {
  return result.outcome == Outcome::kAnswered ? StatusText(result.response.receive_data.status)
                                              : result.text;
}

const char* Exchange::OutcomeName() const {
  switch (result.outcome) {
    case Outcome::kAnswered:
      return "answered";
    case Outcome::kNotReachable:
      return "not_reachable";
    case Outcome::kTimedOut:
      return "timed_out";
    case Outcome::kClosedWithoutAnswer:
      return "closed_without_answer";
    case Outcome::kSocketError:
      break;
  }
  return "socket_error";
}

/// What changes in the health file while a request runs. An exchange of somebody else's in the
/// meantime hides ours, and is never taken for it.
class Exchanger::HealthProbe {
 public:
  explicit HealthProbe(std::string path) : path_(std::move(path)), now_(ReadHealth(path_)) {}

  bool IsReadable() const { return now_.snapshot.has_value(); }

  void Begin() {
    now_ = ReadHealth(path_);
    before_ = now_.snapshot.value_or(HealthSnapshot{});
    begin_ms_ = NowMs();
  }

  /// Waits until the daemon has written, as it does within a second.
  std::vector<std::optional<DeviceEnd>> End(const Bus& bus, const std::vector<Device>& devices) {
    constexpr std::chrono::milliseconds kPace{20};
    const Deadline deadline{std::chrono::milliseconds(1200)};
    std::vector<std::optional<DeviceEnd>> ends;
    while (true) {
      now_ = ReadHealth(path_);
      ends.clear();
      for (const Device& device : devices) {
        ends.push_back(EndOf(bus, device.address, devices.size() == 1));
      }
      if (std::all_of(ends.begin(), ends.end(), [](const auto& end) { return end.has_value(); }) ||
          !IsKept() || deadline.HasPassed()) {
        break;
      }
      std::this_thread::sleep_for(kPace);
    }
    if (!IsReadable() && !std::exchange(is_error_told_, true)) {
      std::cerr << "tamselctl: no causes and no times of devices: " << now_.error << '\n';
    }
    return ends;
  }

 private:
  static const tamsel_health_device* Find(const HealthSnapshot& snapshot, const Bus& bus,
                                          int address) {
    for (const tamsel_health_device& device : snapshot.devices) {
      if (device.channel == bus.channel && device.transport == bus.Transport() &&
          device.address == address) {
        return &device;
      }
    }
    return nullptr;
  }

  static tamsel_health_channel Channel(const HealthSnapshot& snapshot, int number) {
    for (const tamsel_health_channel& channel : snapshot.channels) {
      if (static_cast<int>(channel.channel) == number) {
        return channel;
      }
    }
    return {};
  }

  // Whether a running daemon keeps the file up to date.
  bool IsKept() const {
    return IsReadable() && now_.snapshot->process.stopped_ms == 0 &&
           now_.snapshot->process.updated_ms > NowMs() - TAMSEL_HEALTH_STALE_MS;
  }

  std::optional<DeviceEnd> EndOf(const Bus& bus, int address, bool is_alone) const {
    const tamsel_health_device* after = IsReadable() ? Find(*now_.snapshot, bus, address) : nullptr;
    const tamsel_health_device* before = Find(before_, bus, address);
    if (after == nullptr || after->exchanges != (before == nullptr ? 0 : before->exchanges) + 1) {
      return std::nullopt;
    }
    DeviceEnd end;
    end.cause = after->last_cause;
    end.detail = after->last_detail;
    const bool is_answered = end.cause == TAMSEL_CAUSE_ANSWERED;
    constexpr double kMicroseconds = 1000.0;
    if (!bus.IsRs485()) {
      end.took_ms = std::max(std::int64_t{0}, after->last_ms - begin_ms_);
      if (is_answered &&
          after->response_count == (before == nullptr ? 0 : before->response_count) + 1) {
        end.response_ms = after->response_last_us / kMicroseconds;
      }
      return end;
    }
    const tamsel_health_channel channel = Channel(*now_.snapshot, bus.channel);
    if (is_alone && channel.cycles == Channel(before_, bus.channel).cycles + 1) {
      if (is_answered) {
        end.response_ms = channel.cycle_last_us / kMicroseconds;
      } else {
        end.took_ms = std::llround(channel.cycle_last_us / kMicroseconds);
      }
    }
    return end;
  }

  const std::string path_;
  HealthReading now_;
  HealthSnapshot before_;
  std::int64_t begin_ms_ = 0;
  bool is_error_told_ = false;
};

Exchanger::Exchanger(const DaemonOptions& daemon, Purpose purpose, int busy_wait_ms,
                     std::optional<int> deadline_ms, const Interruption& interruption,
                     Progress& progress)
    : socket_path_(SocketPath(daemon)),
      purpose_(purpose),
      busy_wait_ms_(busy_wait_ms),
      deadline_ms_(deadline_ms),
      interruption_(interruption),
      progress_(progress) {
  const std::string path = HealthOf(daemon, socket_path_);
  if (purpose != Purpose::kScan && !path.empty()) {
    health_ = std::make_unique<HealthProbe>(path);
  }
}

Exchanger::~Exchanger() = default;

bool Exchanger::HasHealth() const {
  return health_ && health_->IsReadable();
}

// The daemon ends an exchange that it has begun, whether or not somebody still waits for it.
std::optional<Exchange> Exchanger::RunOnce(const Bus& bus, const std::vector<Device>& devices,
                                           const Request& request, const std::string& doing) {
  if (health_) {
    health_->Begin();
  }
  const auto begin = Deadline::Clock::now();
  const auto elapsed_ms = [begin] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Deadline::Clock::now() - begin)
        .count();
  };
  const auto work = [request, path = socket_path_,
                     deadline_ms = deadline_ms_.value_or(DeadlineMs(bus, devices.size()))] {
    const TamselClient client(path);
    return std::visit([&](const auto& records) { return client.Exchange(records, deadline_ms); },
                      request);
  };
  auto result = interruption_.Await(work, [&] {
    constexpr int kSecond = 1000;
    progress_.Show(doing + ", " + DurationText(elapsed_ms() / kSecond * kSecond));
  });
  if (!result) {
    progress_.Clear();
    std::cerr << "tamselctl: interrupted; channel " << bus.channel
              << " stays busy until the exchange ends\n";
    return std::nullopt;
  }
  Exchange exchange;
  exchange.result = std::move(*result);
  if (exchange.result.outcome == Outcome::kNotReachable) {
    exchange.result.text += RightsHelp(socket_path_);
  }
  exchange.elapsed_ms = elapsed_ms();
  exchange.ends.resize(devices.size());
  return exchange;
}

std::optional<Exchange> Exchanger::Run(const Bus& bus, const std::vector<Device>& devices,
                                       const std::string& doing) {
  Request request = BuildRequest(bus, devices);
  if (purpose_ == Purpose::kScan) {
    std::visit([](auto& records) { MarkAsScan(records.header); }, request);
  }
  const Deadline busy_deadline{std::chrono::milliseconds(busy_wait_ms_)};
  while (true) {
    auto exchange = RunOnce(bus, devices, request, doing);
    if (!exchange || !IsBusy(exchange->result) || busy_deadline.HasPassed()) {
      if (health_ && exchange && exchange->ExitCode() == kExitOk) {
        exchange->ends = health_->End(bus, devices);
      }
      return exchange;
    }
    progress_.Show(doing + ", the channel is busy");
    const std::chrono::milliseconds rest(busy_deadline.RemainingMs());
    if (!interruption_.Sleep(std::min(kBusyPace, rest))) {
      return std::nullopt;
    }
  }
}

std::string ResponseText(double ms) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f ms", ms < 1 ? 2 : ms < 100 ? 1 : 0, ms);
  return text;
}

}  // namespace tmsc::ctl
