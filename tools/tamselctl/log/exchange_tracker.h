#ifndef TAMSELCTL_LOG_EXCHANGE_TRACKER_H_
#define TAMSELCTL_LOG_EXCHANGE_TRACKER_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "communication_common.h"
#include "log/log_message.h"

namespace tmsc::ctl {

/// Channels and devices that something may belong to: bit n stands for number n. No bit: none, or
/// nobody knows.
struct Owners {
  std::uint32_t channels = 0;
  std::uint32_t devices = 0;
};

/// The one number whose bit is set; 0 when there are none or several.
int OnlyOne(std::uint32_t bits);

/// An exchange with a TCP/IP device that is over.
struct TcpExchange {
  std::string ip;
  int port = 0;
  int device = 0;          // 0: one of those below, the log does not say which
  std::string_view words;  // how it ended
  bool is_answered = false;
  Owners owners;
  std::int64_t time_ms = 0;  // of its end
};

/// Follows the requests and exchanges of a log, line by line, to tell whom each line belongs to:
/// most lines of a TCP/IP exchange name an IP address only, many of an RS485 exchange nobody.
class ExchangeTracker {
 public:
  /// Takes the next line of the log.
  Owners Take(const LogLine& line, const LogMessage& message);

  /// The TCP/IP exchanges that were told apart since the last call. Exchanges of devices behind one
  /// IP address that ran at the same time are told apart when all have ended: by the unit in their
  /// frames, where it is the device's address for each of them, and by what is left over.
  std::vector<TcpExchange> TakeEnded();

  /// Exchanges of which the log has the begin and not the end, so far.
  std::uint64_t Unfinished() const { return unfinished_; }

  /// The log is over: what has begun does not end any more.
  void End();

 private:
  enum class Transport { kNone, kUnknown, kPerhapsTcp, kTcp, kRs485 };
  struct ChannelState {
    bool is_in_use = false;
    Transport transport = Transport::kNone;
    int asked_device = 0;          // whose answer is told in the next line
    bool is_step_refused = false;  // by the serial library
  };
  struct Begun {
    int port;
    int device;
    std::uint32_t channels;
  };
  struct Ended {
    std::string_view words;
    bool is_answered;
    bool is_unsent;
    int unit;  // of the answer; -1: none
    std::int64_t time_ms;
  };
  /// Exchanges with devices of one IP address at one time.
  struct Group {
    std::vector<Begun> begun;
    std::vector<int> sent_units;
    std::vector<Ended> ended;
    Owners last;  // of the group before
  };

  std::uint32_t ChannelsWith(Transport transport) const;
  std::uint32_t TcpChannels() const;
  Owners OfChannel(const LogMessage& message);
  Owners OfTcp(const LogLine& line, const LogMessage& message);
  Owners OfRs485(const LogMessage& message);
  std::uint32_t ChannelsRefused(std::uint32_t channels);
  void TakeTransport();
  void Resolve(const std::string& ip, Group& group);
  void ResolveSame(const std::string& ip, std::vector<Begun>& begun, std::vector<Ended>& ended);
  void Tell(const std::string& ip, const std::vector<Begun>& begun, const Ended& ended);
  void GiveUp();

  ChannelState channels_[kMaxChannel + 1];
  std::map<std::string, Group, std::less<>> groups_;
  std::vector<TcpExchange> told_;
  std::uint64_t unfinished_ = 0;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_EXCHANGE_TRACKER_H_
