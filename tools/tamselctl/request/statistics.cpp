#include "request/statistics.h"

#include <cmath>

#include "shared/exit_code.h"
#include "shared/json_line.h"
#include "shared/table.h"

namespace tmsc::ctl {
namespace {

struct Share {
  const char* heading;
  const char* name;
  double share;
};
constexpr Share kShares[] = {{">least", "least_ms", 0},
                             {">median", "median_ms", 0.5},
                             {">99 %", "p99_ms", 0.99},
                             {">most", "most_ms", 1}};

}  // namespace

void TimeStatistics::Add(double ms) {
  constexpr double kMicroseconds = 1000;
  constexpr std::int64_t kThreeDigits = 1000;
  const std::int64_t microseconds = std::llround(ms * kMicroseconds);
  std::int64_t step = 1;
  while (microseconds / step >= kThreeDigits) {
    step *= 10;
  }
  ++counts_[(microseconds + step / 2) / step * step];
  ++count_;
}

double TimeStatistics::Quantile(double share) const {
  const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
  std::uint64_t seen = 0;
  constexpr double kMicroseconds = 1000;
  for (const auto& [microseconds, count] : counts_) {
    seen += count;
    if (seen >= rank) {
      return static_cast<double>(microseconds) / kMicroseconds;
    }
  }
  return 0;
}

void Statistics::Add(const RequestReport& report) {
  ++requests_.asked;
  if (report.error.empty()) {
    ++requests_.answered;
    requests_.times.Add(static_cast<double>(report.elapsed_ms));
  }
  for (const DeviceReport& device : report.devices) {
    Tally& tally = devices_[{report.bus.channel, report.bus.Transport(), device.address}];
    tally.label = device.name.empty() ? "device " + std::to_string(device.address) : device.name;
    ++tally.asked;
    tally.answered += device.is_good ? 1 : 0;
    if (device.is_good && device.end && device.end->response_ms) {
      tally.times.Add(*device.end->response_ms);
    }
  }
}

void Statistics::PrintTable(std::ostream& output) const {
  std::vector<std::string> headings{"", ">asked", ">answered", ">failed"};
  for (const Share& share : kShares) {
    headings.emplace_back(share.heading);
  }
  Table table(headings);
  const auto add = [&table](const Tally& tally) {
    const std::uint64_t failed = tally.asked - tally.answered;
    std::vector<Table::Cell> row{tally.label,
                                 std::to_string(tally.asked),
                                 std::to_string(tally.answered),
                                 {std::to_string(failed), failed == 0 ? Tone::kPlain : Tone::kBad}};
    for (const Share& share : kShares) {
      row.emplace_back(tally.times.IsEmpty() ? "-"
                                             : ResponseText(tally.times.Quantile(share.share)));
    }
    table.Add(row);
  };
  for (const auto& [key, tally] : devices_) {
    add(tally);
  }
  add(requests_);
  output << '\n';
  table.Print(output);
}

void Statistics::PrintJson(std::ostream& output) const {
  const auto json_of = [](const Tally& tally) {
    nlohmann::ordered_json json;
    json["asked"] = tally.asked;
    json["answered"] = tally.answered;
    json["failed"] = tally.asked - tally.answered;
    for (const Share& share : kShares) {
      json[share.name] = tally.times.IsEmpty()
                             ? nlohmann::ordered_json(nullptr)
                             : nlohmann::ordered_json(tally.times.Quantile(share.share));
    }
    return json;
  };
  nlohmann::ordered_json summary;
  summary["requests"] = json_of(requests_);
  summary["devices"] = nlohmann::ordered_json::array();
  for (const auto& [key, tally] : devices_) {
    nlohmann::ordered_json device{{"channel", key.channel}, {"device", key.address}};
    device.update(json_of(tally));
    summary["devices"].push_back(std::move(device));
  }
  PrintJsonLine(output, {{"summary", std::move(summary)}});
}

}  // namespace tmsc::ctl
