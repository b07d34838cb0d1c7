#include "log/exchange_tracker.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "shared/arguments.h"

namespace tmsc::ctl {
namespace {

using Kind = MessageKind;

std::uint32_t Bit(int number) {
  return number > 0 ? std::uint32_t{1} << number : 0;
}

/// The byte of a Modbus/TCP frame that names the unit; -1 when it is shorter.
int UnitOf(std::string_view digits) {
  constexpr std::size_t kUnitOffset = 6;
  if (digits.size() < 2 * (kUnitOffset + 1)) {
    return -1;
  }
  return ParseNumber("0x" + std::string(digits.substr(2 * kUnitOffset, 2)), 0, 0xFF).value_or(-1);
}

/// Whether an address is there twice.
template <typename Entries>
bool HasTwins(const Entries& begun) {
  std::uint32_t devices = 0;
  for (const auto& entry : begun) {
    if ((devices & Bit(entry.device)) != 0) {
      return true;
    }
    devices |= Bit(entry.device);
  }
  return false;
}

template <typename Entries>
Owners OwnersOf(const Entries& begun) {
  Owners owners;
  for (const auto& entry : begun) {
    owners.channels |= entry.channels;
    owners.devices |= Bit(entry.device);
  }
  return owners;
}

}  // namespace

int OnlyOne(std::uint32_t bits) {
  int number = 0;
  while (number < 32 && bits != Bit(number)) {
    ++number;
  }
  return number < 32 ? number : 0;
}

Owners ExchangeTracker::Take(const LogLine& line, const LogMessage& message) {
  switch (message.kind) {
    case Kind::kStart:
      GiveUp();
      return {};
    case Kind::kRequestBegins:
      channels_[message.channel] = {true, Transport::kNone, 0, false};
      break;
    case Kind::kTaken:
      // Also of a request whose begin is not in the log.
      channels_[message.channel] = {true, Transport::kUnknown, 0, false};
      break;
    case Kind::kRequestEnds: {
      const Owners owners = OfChannel(message);
      channels_[message.channel] = {};
      if (TcpChannels() == 0) {
        GiveUp();
      }
      return owners;
    }
    case Kind::kRs485Request:
      channels_[message.channel].transport = Transport::kRs485;
      break;
    case Kind::kTcpRequest: {
      const std::uint32_t candidates = ChannelsWith(Transport::kUnknown);
      TakeTransport();
      return {candidates, 0};
    }
    default:
      break;
  }
  if (!message.ip.empty()) {
    return OfTcp(line, message);
  }
  if (line.tag == "485ARq" || line.tag == "485ARqLib") {
    return OfRs485(message);
  }
  if (line.tag == "TCPIPAUnit" || line.tag == "TCPIPAReq" || line.tag == "AChTCPIP") {
    return {TcpChannels(), Bit(message.device)};
  }
  if (message.kind == Kind::kRequestFails || message.kind == Kind::kRequestUntold) {
    return {ChannelsWith(Transport::kUnknown) | TcpChannels() | ChannelsWith(Transport::kRs485), 0};
  }
  return OfChannel(message);
}

Owners ExchangeTracker::OfChannel(const LogMessage& message) {
  return {Bit(message.channel), Bit(message.device)};
}

std::uint32_t ExchangeTracker::ChannelsWith(Transport transport) const {
  std::uint32_t bits = 0;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    if (channels_[channel].is_in_use && channels_[channel].transport == transport) {
      bits |= Bit(channel);
    }
  }
  return bits;
}

std::uint32_t ExchangeTracker::TcpChannels() const {
  return ChannelsWith(Transport::kTcp) | ChannelsWith(Transport::kPerhapsTcp);
}

/// A request says that it is a TCP/IP one, not on which channel.
void ExchangeTracker::TakeTransport() {
  const std::uint32_t candidates = ChannelsWith(Transport::kUnknown);
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    if ((candidates & Bit(channel)) != 0) {
      channels_[channel].transport =
          OnlyOne(candidates) != 0 ? Transport::kTcp : Transport::kPerhapsTcp;
    }
  }
}

Owners ExchangeTracker::OfRs485(const LogMessage& message) {
  if (message.channel != 0) {
    ChannelState& channel = channels_[message.channel];
    if (message.kind == Kind::kRs485Ends) {
      channel.asked_device = message.device;
    } else if (message.kind == Kind::kStepRefused || message.kind == Kind::kStepTaken) {
      channel.is_step_refused = message.kind == Kind::kStepRefused;
    }
    return OfChannel(message);
  }
  const std::uint32_t channels = ChannelsWith(Transport::kRs485);
  if (message.kind == Kind::kRequestFails) {
    return {ChannelsRefused(channels), 0};
  }
  if (message.kind == Kind::kRs485Sends) {
    const std::string address = "0x" + std::string(message.bytes.substr(0, 2));
    return {channels, Bit(ParseNumber(address, 1, kMaxDeviceCountAtChannel).value_or(0))};
  }
  Owners owners{channels, 0};
  if (message.kind == Kind::kRs485Answer) {
    owners.channels = 0;
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      const int device = std::exchange(channels_[channel].asked_device, 0);
      owners.channels |= device != 0 ? Bit(channel) : 0;
      owners.devices |= Bit(device);
    }
  }
  return owners;
}

/// Those of the channels whose request the library has just refused a step; all when there is none.
std::uint32_t ExchangeTracker::ChannelsRefused(std::uint32_t channels) {
  std::uint32_t refused = 0;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    refused |= channels_[channel].is_step_refused ? channels & Bit(channel) : 0;
  }
  if (const int only = OnlyOne(refused)) {
    channels_[only].is_step_refused = false;
  }
  return refused != 0 ? refused : channels;
}

Owners ExchangeTracker::OfTcp(const LogLine& line, const LogMessage& message) {
  auto found = groups_.find(message.ip);
  if (found == groups_.end()) {
    found = groups_.emplace(std::string(message.ip), Group{}).first;
  }
  Group& group = found->second;
  if (message.kind == Kind::kTcpBegins) {
    group.begun.push_back({message.number, message.device, TcpChannels()});
    return {TcpChannels(), Bit(message.device)};
  }
  Owners owners = group.begun.empty() ? group.last : OwnersOf(group.begun);
  const int unit = UnitOf(message.bytes);
  if (unit <= kMaxDeviceCountAtChannel && (owners.devices & Bit(unit)) != 0) {
    owners.devices = Bit(unit);
  }
  const bool is_answered = message.kind == Kind::kTcpAnswered;
  const bool is_unsent = message.kind == Kind::kTcpEndsUnsent;
  if (message.kind == Kind::kTcpSends) {
    group.sent_units.push_back(UnitOf(message.bytes));
  } else if (is_answered || is_unsent || message.kind == Kind::kTcpEnds) {
    group.ended.push_back({message.words, is_answered, is_unsent,
                           is_answered ? UnitOf(message.bytes) : -1, line.time_ms});
    if (group.ended.size() >= group.begun.size()) {
      Resolve(found->first, group);
      const Owners last = group.begun.empty() ? group.last : OwnersOf(group.begun);
      group = {{}, {}, {}, last};
    }
  }
  return owners;
}

/// An exchange that is one of those begun, all of which may be it.
void ExchangeTracker::Tell(const std::string& ip, const std::vector<Begun>& begun,
                           const Ended& ended) {
  TcpExchange exchange;
  exchange.ip = ip;
  exchange.words = ended.words;
  exchange.is_answered = ended.is_answered;
  exchange.time_ms = ended.time_ms;
  exchange.owners = OwnersOf(begun);
  if (begun.size() == 1) {
    exchange.port = begun.front().port;
    exchange.device = begun.front().device;
  }
  told_.push_back(std::move(exchange));
}

void ExchangeTracker::Resolve(const std::string& ip, Group& group) {
  if (group.begun.empty()) {
    // The log begins, or shows lines, behind the begin of these exchanges.
    for (const Ended& ended : group.ended) {
      Tell(ip, {}, ended);
      told_.back().owners = group.last;
      told_.back().device = OnlyOne(group.last.devices);
    }
    return;
  }
  if (HasTwins(group.begun)) {
    ResolveSame(ip, group.begun, group.ended);
    return;
  }
  std::vector<Begun> unsent = group.begun;
  std::vector<Begun> sent;
  for (const int unit : group.sent_units) {
    const auto of_unit = std::find_if(unsent.begin(), unsent.end(),
                                      [unit](const Begun& begun) { return begun.device == unit; });
    if (of_unit == unsent.end()) {
      // The units are no device addresses here.
      ResolveSame(ip, group.begun, group.ended);
      return;
    }
    sent.push_back(*of_unit);
    unsent.erase(of_unit);
  }
  std::vector<Ended> ended_unsent;
  std::vector<Ended> ended_sent;
  for (const Ended& ended : group.ended) {
    const auto answerer = std::find_if(sent.begin(), sent.end(), [&ended](const Begun& begun) {
      return begun.device == ended.unit;
    });
    if (answerer != sent.end()) {
      Tell(ip, {*answerer}, ended);
      sent.erase(answerer);
    } else {
      (ended.is_unsent ? ended_unsent : ended_sent).push_back(ended);
    }
  }
  ResolveSame(ip, unsent, ended_unsent);
  ResolveSame(ip, sent, ended_sent);
}

/// Ends that are all the same are everybody's; else any may be anybody's.
void ExchangeTracker::ResolveSame(const std::string& ip, std::vector<Begun>& begun,
                                  std::vector<Ended>& ended) {
  const bool are_same = begun.size() == ended.size() &&
                        std::all_of(ended.begin(), ended.end(), [&ended](const Ended& other) {
                          return other.words == ended.front().words;
                        });
  for (std::size_t i = 0; i < ended.size(); ++i) {
    Tell(ip, are_same ? std::vector<Begun>{begun[i]} : begun, ended[i]);
  }
}

/// What has begun and not ended does not end any more.
void ExchangeTracker::GiveUp() {
  for (auto& [ip, group] : groups_) {
    if (group.begun.empty()) {
      continue;
    }
    unfinished_ += group.begun.size() - group.ended.size();
    Resolve(ip, group);
    group = {{}, {}, {}, OwnersOf(group.begun)};
  }
}

std::vector<TcpExchange> ExchangeTracker::TakeEnded() {
  return std::exchange(told_, {});
}

void ExchangeTracker::End() {
  GiveUp();
}

}  // namespace tmsc::ctl
