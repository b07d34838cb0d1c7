#include "log/log_summary.h"

#include <algorithm>

#include "shared/address_ranges.h"

namespace tmsc::ctl {
namespace {

using Kind = MessageKind;

std::string PlaceOf(const TcpExchange& exchange) {
  return exchange.port == 0 ? exchange.ip : exchange.ip + ":" + std::to_string(exchange.port);
}

std::string AddressesText(std::uint32_t bits) {
  std::vector<int> addresses;
  for (int address = 1; address < 32; ++address) {
    if ((bits >> address & 1) != 0) {
      addresses.push_back(address);
    }
  }
  return RangesText(addresses);
}

}  // namespace

void LogSummary::Take(const LogLine& line) {
  ++lines_;
  first_ms_ = lines_ == 1 ? line.time_ms : first_ms_;
  last_ms_ = line.time_ms;
  const LogMessage message = ReadMessage(line);
  TakeRun(line, message);
  const Owners owners = tracker_.Take(line, message);
  TakeRequest(line, message, owners);
  TakeExchanges();
}

void LogSummary::End() {
  tracker_.End();
  TakeExchanges();
  EndRun();
  for (const TcpExchange& exchange : of_several_channels_) {
    const std::uint32_t known = exchange.device == 0 ? 0 : channels_of_place_[PlaceOf(exchange)];
    const int channel = OnlyOne(known & exchange.owners.channels);
    exchanges_inferred_ += channel != 0 ? 1 : 0;
    Count(exchange, channel);
  }
}

void LogSummary::TakeRun(const LogLine& line, const LogMessage& message) {
  switch (message.kind) {
    case Kind::kStart:
      starts_without_stop_ += run_.has_lines && !run_.is_stopped ? 1 : 0;
      EndRun();
      ++starts_;
      break;
    case Kind::kStop:
      run_.is_stopped = true;
      break;
    case Kind::kOutage:
      ++outages_;
      break;
    case Kind::kRecovery:
      ++recoveries_;
      break;
    case Kind::kCardGone:
      ++card_gone_;
      break;
    case Kind::kCardBack:
      ++card_back_;
      break;
    case Kind::kLinesLost:
      lines_lost_ += static_cast<std::uint64_t>(std::max(message.number, 0));
      break;
    case Kind::kService:
      ++service_[std::string(message.words)];
      break;
    case Kind::kClientRefused:
      ++clients_refused_[std::string(message.words)];
      break;
    default:
      break;
  }
  const std::size_t level = kLogLevels.find(line.level);
  run_.least_level = run_.has_lines ? std::min(run_.least_level, level) : level;
  run_.has_lines = true;
}

void LogSummary::EndRun() {
  for (auto& [channel, counts] : channels_) {
    counts.unfinished += counts.begin_ms != 0 ? 1 : 0;
    counts.begin_ms = 0;
  }
  if (run_.has_lines) {
    ++runs_;
    if (run_.least_level > kLogLevels.find('D')) {
      ++quiet_runs_[kLogLevels[run_.least_level]];
    }
  }
  run_ = {};
}

void LogSummary::TakeRequest(const LogLine& line, const LogMessage& message, const Owners& owners) {
  const int channel = OnlyOne(owners.channels);
  switch (message.kind) {
    case Kind::kBusy:
      ++channels_[channel].busy;
      break;
    case Kind::kRequestBegins: {
      ChannelCounts& counts = channels_[channel];
      ++counts.requests;
      counts.begin_ms = line.time_ms;
      counts.is_port_refused = false;
      break;
    }
    case Kind::kRequestEnds:
      EndRequest(channel, line.time_ms);
      break;
    case Kind::kRs485Request:
      ++channels_[channel].rs485;
      break;
    case Kind::kTcpRequest:
      ++channels_[channel].tcpip;
      break;
    case Kind::kPortOpened:
    case Kind::kPortRefused:
      channels_[channel].is_port_refused = message.kind == Kind::kPortRefused;
      break;
    case Kind::kRequestFails:
    case Kind::kRequestUntold:
      ++channels_[channel].failed;
      ++channels_[channel].failures[std::string(message.words)];
      break;
    case Kind::kDeviceRefused:
      Count({channel, line.tag == "TCPIPAUnit", message.device, "", ""},
            "refused: " + std::string(message.words), true, line.time_ms);
      break;
    case Kind::kRs485Ends: {
      const bool is_answered = message.words == "answered";
      Count({channel, false, message.device, "", ""},
            message.words.empty() ? "status " + std::to_string(message.number)
                                  : std::string(message.words),
            !is_answered, line.time_ms);
      break;
    }
    default:
      break;
  }
}

void LogSummary::EndRequest(int channel, std::int64_t time_ms) {
  ChannelCounts& counts = channels_[channel];
  if (counts.begin_ms != 0) {
    counts.longest_ms = std::max(counts.longest_ms, time_ms - counts.begin_ms);
  }
  if (counts.is_port_refused) {
    ++counts.failed;
    ++counts.failures["port not opened"];
  }
  counts.begin_ms = 0;
  counts.is_port_refused = false;
}

void LogSummary::TakeExchanges() {
  for (const TcpExchange& exchange : tracker_.TakeEnded()) {
    const int channel = OnlyOne(exchange.owners.channels);
    if (channel == 0 && exchange.owners.channels != 0) {
      of_several_channels_.push_back(exchange);
      continue;
    }
    channels_of_place_[PlaceOf(exchange)] |= exchange.owners.channels;
    Count(exchange, channel);
  }
}

void LogSummary::Count(const TcpExchange& exchange, int channel) {
  exchanges_untold_ += exchange.device == 0 ? 1 : 0;
  Count({channel, true, exchange.device, PlaceOf(exchange),
         exchange.device == 0 ? AddressesText(exchange.owners.devices) : ""},
        exchange.words, !exchange.is_answered, exchange.time_ms);
}

void LogSummary::Count(const DeviceKey& key, std::string_view words, bool is_failed,
                       std::int64_t time_ms) {
  DeviceCounts& counts = devices_[key];
  ++counts.exchanges;
  if (is_failed) {
    ++counts.failed;
    counts.last_failed_ms = time_ms;
    ++counts.failures[std::string(words)];
  }
}

std::vector<std::string> LogSummary::Notes() const {
  std::vector<std::string> notes;
  for (const auto& [level, count] : quiet_runs_) {
    std::string hidden = "requests, answers, busy refusals, failed connects and RS485 exchanges";
    if (level != 'I') {
      hidden += ", other failures of exchanges, starts, stops and outages";
    }
    if (level == 'E' || level == 'F') {
      hidden += ", refused entries";
    }
    notes.push_back("No line below " + std::string(1, level) + " in " + std::to_string(count) +
                    " of " + std::to_string(runs_) +
                    " runs of the daemon: with such a LogLevel the log does not show " + hidden);
  }
  const auto note = [&notes](std::uint64_t count, const char* text) {
    if (count > 0) {
      notes.push_back(text + std::to_string(count));
    }
  };
  note(exchanges_untold_,
       "TCP/IP exchanges that cannot be told to one device, since the log names their IP address "
       "only and several devices have it, or none was named before: ");
  note(exchanges_inferred_,
       "TCP/IP exchanges that ran while several channels did, and count for the channel of the "
       "device's other exchanges: ");
  note(tracker_.Unfinished(),
       "TCP/IP exchanges whose end is not in the log, and which are not counted: ");
  return notes;
}

}  // namespace tmsc::ctl
