#ifndef TAMSELCTL_LOG_LOG_MESSAGE_H_
#define TAMSELCTL_LOG_LOG_MESSAGE_H_

#include <string_view>

#include "log/log_line.h"

namespace tmsc::ctl {

/// What a line tells.
enum class MessageKind {
  kOther,
  kStart,
  kStop,
  kOutage,
  kRecovery,
  kWritingOff,
  kWritingOn,
  kService,  // the daemon itself is in trouble; words: how
  kCardGone,
  kCardBack,
  kLinesLost,      // number: of lines
  kClientRefused,  // a client that made no request; words: why
  kBusy,
  kRequestBegins,
  kRequestEnds,
  kTaken,  // a worker has the request
  kRs485Request,
  kTcpRequest,
  kPortOpened,
  kPortRefused,  // for this attempt
  kStepRefused,  // for this attempt; the line that the request has failed does not name a channel
  kStepTaken,
  kRequestFails,   // as a whole; words: how
  kRequestUntold,  // answered, but the client did not take it; words: how
  kDeviceRefused,  // an entry of a request; words: why
  kRs485Ends,      // one device; words: how, empty for a status of another library (number)
  kRs485Sends,     // bytes: the frame
  kRs485Answer,    // bytes: what came
  kTcpBegins,      // one device; number: its port
  kTcpSends,       // bytes: the frame
  kTcpAnswered,    // bytes: the answer
  kTcpEndsUnsent,  // failed before anything was sent; words: how
  kTcpEnds,        // failed later; words: how
};

/// What was read from a line. Numbers that it does not have are 0, texts empty; texts are parts of
/// the line or constant.
struct LogMessage {
  MessageKind kind = MessageKind::kOther;
  std::string_view words;
  int channel = 0;
  int device = 0;
  int number = 0;
  std::string_view ip;
  std::string_view bytes;  // hexadecimal digits
};

/// Never fails: what it does not know is kOther, perhaps with a channel, a device or an IP address.
LogMessage ReadMessage(const LogLine& line);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_LOG_MESSAGE_H_
