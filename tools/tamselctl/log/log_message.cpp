#include "log/log_message.h"

#include <charconv>
#include <cstddef>
#include <system_error>

#include "communication_common.h"

namespace tmsc::ctl {
namespace {

using Kind = MessageKind;

/// A text that the daemon writes, as far as it tells one from the others. In it %c is a channel, %d
/// a device's address, %n any number, %i an IP address, %h the rest of brackets, %s anything.
struct Form {
  std::string_view tag;
  std::string_view text;
  Kind kind;
  std::string_view words = {};
};

// Of two forms that fit the first counts. What fits none and belongs to a device or a channel says
// so where the forms at the end look for it.
constexpr Form kForms[] = {
    {"TCPIPAUnit", "[%i] [%n][%d]", Kind::kTcpBegins},
    {"TCPIPAUnit", "sendBytes [%i][%h]", Kind::kTcpSends},
    {"TCPIPAUnit", "rcvBytes [%i][%h]", Kind::kTcpAnswered, "answered"},
    {"TCPIPAUnit", "Read dat err.[%i] size[0]", Kind::kTcpEnds, "closed by the device"},
    {"TCPIPAUnit", "Read dat err.[%i] size[%n]", Kind::kTcpEnds, "no answer in time, or reset"},
    {"TCPIPAUnit", "Read dat err.[%i]", Kind::kTcpEnds, "answer cut short"},
    {"TCPIPAUnit", "Rcv dat size too large.[%i]", Kind::kTcpEnds, "answer too long"},
    {"TCPIPAUnit", "Could not snd dat [%i]", Kind::kTcpEnds, "frame not taken"},
    {"TCPIPAUnit", "Exception [%i]", Kind::kTcpEnds, "daemon failure"},
    {"TCPIPAUnit", "Con err.  [%i][111]", Kind::kTcpEndsUnsent, "connect refused"},
    {"TCPIPAUnit", "Con err.  [%i][-3]", Kind::kTcpEndsUnsent, "connect timed out"},
    {"TCPIPAUnit", "Con err.  [%i][110]", Kind::kTcpEndsUnsent, "connect timed out"},
    {"TCPIPAUnit", "Con err.  [%i][113]", Kind::kTcpEndsUnsent, "unreachable"},
    {"TCPIPAUnit", "Con err.  [%i][101]", Kind::kTcpEndsUnsent, "unreachable"},
    {"TCPIPAUnit", "Con err.  [%i][-2]", Kind::kTcpEndsUnsent, "connect failed at once"},
    {"TCPIPAUnit", "Con err.  [%i][-1]", Kind::kTcpEndsUnsent, "no descriptor"},
    {"TCPIPAUnit", "Con err.  [%i][%n]", Kind::kTcpEndsUnsent, "connect failed"},
    {"TCPIPAUnit", "Con in use [%i]", Kind::kTcpEndsUnsent, "connection in use"},
    {"TCPIPAUnit", "Dev addr err. dev[%n]", Kind::kDeviceRefused, "address above 31"},
    {"TCPIPAUnit", "Snd dat len err. dev[%d]", Kind::kDeviceRefused, "frame length"},
    {"TCPIPAUnit", "IP addr err. dev[%d]", Kind::kDeviceRefused, "no IP address"},
    {"TCPIPAUnit", "Port err. dev[%d]", Kind::kDeviceRefused, "no port"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[0]", Kind::kRs485Ends, "answered"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[1]", Kind::kRs485Ends, "no answer in time"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[2]", Kind::kRs485Ends, "line error"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[3]", Kind::kRs485Ends, "answer too long"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[4]", Kind::kRs485Ends, "port gone"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%n] status:[5]", Kind::kRs485Ends, "not its answer"},
    {"485ARq", "Rcv dat <C%c:%d> len:[%s] status:[%n]", Kind::kRs485Ends},
    {"485ARq", "Rcv dat size too large. <C%c:%d>", Kind::kRs485Ends, "answer too long"},
    {"485ARq", "Dev addr err. <C%c:%n>", Kind::kDeviceRefused, "address above 31"},
    {"485ARq", "Snd dat len err. <C%c:%d>", Kind::kDeviceRefused, "frame length"},
    {"485ARq", "vlm_485_op[0] <C%c>", Kind::kPortOpened},
    {"485ARq", "vlm_485_op[1] <C%c>", Kind::kPortRefused},
    {"485ARq", "vlm_485_setCFlg [0] <C%c>", Kind::kStepRefused},
    {"485ARq", "vlm_485_setCFlg [1] <C%c>", Kind::kStepTaken},
    {"485ARqLib", "CheckVlmRs485Close ch:%c", Kind::kStepRefused},
    {"485ARq", "Ch err. ch[%n]", Kind::kRequestFails, "channel not 1 to 3"},
    {"485ARq", "vlm_485_putOStm fail.", Kind::kRequestFails, "frame not taken"},
    {"485ARq", "vlm_485_setCFlg fail.", Kind::kRequestFails, "device flags not taken"},
    {"485ARq", "vlm_485_stCom fail.", Kind::kRequestFails, "cycle not started"},
    {"485ARq", "vlm_485_getRcvStm return NULL", Kind::kRequestFails, "no answers from the library"},
    {"AReq", "request exception:", Kind::kRequestFails, "daemon failure"},
    {"TCPIPAReq", "thread start exception:", Kind::kService, "no thread for a device"},
    {"AChMgr", "SetUsedState ch:[%c] used:[0]->[1]", Kind::kRequestBegins},
    {"AChMgr", "SetUsedState ch:[%c] used:[1]->[0]", Kind::kRequestEnds},
    {"CommSvr", "Exe ch[%c]", Kind::kTaken},
    {"CommSvr", "Busy ch[%c]", Kind::kBusy},
    {"CommSvr", "RqDatType 485 [%n] ch:%c", Kind::kRs485Request},
    {"CommSvr", "RqDatType TCPIP", Kind::kTcpRequest},
    {"CommSvr", "read len err[", Kind::kRequestFails, "payload not whole"},
    {"CommSvr", "unknown dat...", Kind::kRequestFails, "type not 1 or 2"},
    {"CommSvr", "Exec exception", Kind::kRequestFails, "daemon failure"},
    {"CommSvr", "CommunicationResult nullptr", Kind::kRequestUntold, "no response"},
    {"CommSvr", "Rq dat type 485, write sock fail.", Kind::kRequestUntold, "response not taken"},
    {"CommSvr", "Exec read err... ch[", Kind::kClientRefused, "channel not 1 to 3"},
    {"CommSvr", "Exec read err...", Kind::kClientRefused, "no whole header in time"},
    {"CommSvr", "bind fail.", Kind::kService, "socket path cannot be used"},
    {"CommSvr", "listen fail.", Kind::kService, "no requests are served"},
    {"CommSvr", "Fail to accept", Kind::kService, "no more requests are served"},
    {"CommSvr", "select err continue", Kind::kService, "wait for clients failed"},
    {"CommSvr", "svr exception:", Kind::kService, "server broke off"},
    {"TMSCommMgr", "Start AppVer:", Kind::kStart},
    {"TMSCommMgr", "Kill comp.", Kind::kStop},
    {"TMSCommMgr", "NotifyOutageRecovery", Kind::kRecovery},
    {"TMSCommMgr", "NotifyOutage", Kind::kOutage},
    {"TMSCommMgr", "PowerOffStateWork end", Kind::kWritingOff},
    {"TMSCommMgr", "PowerOnStateWork end", Kind::kWritingOn},
    {"TMSCommMgr", "pass exception:", Kind::kService, "main loop broke off"},
    {"Wdog", "status [", Kind::kService, "watchdog file not touched"},
    {"Wdog", "touch exception:", Kind::kService, "watchdog file not touched"},
    {"FlUtil", "SetLogWriteEnable:", Kind::kOther},
    {"FlUtil", "Rename file.", Kind::kService, "log not rotated"},
    {"FlUtil", "", Kind::kService, "file system error"},
    {"LogFlOut", "Card is gone", Kind::kCardGone},
    {"LogFlOut", "Card is back", Kind::kCardBack},
    {"LogFlOut", "Log lines lost while the card was gone [%n]", Kind::kLinesLost},
    {"485ARq", "vlm_485_putOStm [%n] <C%c:%d>", Kind::kOther},
    {"485ARq", "vlm_485_putOStm [%h]", Kind::kRs485Sends},
    {"485ARq", "Rcv dat [%h]", Kind::kRs485Answer},
    {"AChMgr", "%s ch:[%c]", Kind::kOther},
    {"485ARqLib", "%s ch:%c", Kind::kOther},
    {"485ARq", "%s<C%c:%d>", Kind::kOther},
    {"485ARq", "%s<C%c>", Kind::kOther},
    {"TCPIPAUnit", "%s[%i]", Kind::kOther},
};

bool IsDigit(char letter) {
  return letter >= '0' && letter <= '9';
}

/// Takes a number off the front of a text.
bool TakeNumber(std::string_view& text, int least, int most, int& number) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < least || number > most) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  return true;
}

/// Takes an IP address off the front of a text, without the blanks that a client may have put
/// behind it.
bool TakeIp(std::string_view& text, std::string_view& ip) {
  const std::size_t end = text.find(']');
  const std::string_view padded = text.substr(0, end);
  const std::string_view found = padded.substr(0, padded.find_last_not_of(' ') + 1);
  const bool is_ip = end != std::string_view::npos && !found.empty() && IsDigit(found.front()) &&
                     found.find('.') != std::string_view::npos &&
                     found.find_first_not_of("0123456789.") == std::string_view::npos;
  if (is_ip) {
    ip = found;
    text.remove_prefix(end);
  }
  return is_ip;
}

/// Takes what the sign behind a % stands for off the front of a text.
bool TakeValue(char sign, std::string_view& text, LogMessage& message) {
  constexpr int kAnyNumber = 1 << 30;
  switch (sign) {
    case 'c':
      return TakeNumber(text, 1, kMaxChannel, message.channel);
    case 'd':
      return TakeNumber(text, 1, kMaxDeviceCountAtChannel, message.device);
    case 'n':
      return TakeNumber(text, -kAnyNumber, kAnyNumber, message.number);
    case 'i':
      return TakeIp(text, message.ip);
    default:
      message.bytes = text.substr(0, text.find(']'));
      text.remove_prefix(message.bytes.size());
      return true;
  }
}

/// Whether a text begins as the form says; the values go into `message`.
bool Fits(std::string_view form, std::string_view text, LogMessage& message) {
  while (!form.empty()) {
    if (form.size() < 2 || form.front() != '%') {
      if (text.empty() || text.front() != form.front()) {
        return false;
      }
      form.remove_prefix(1);
      text.remove_prefix(1);
      continue;
    }
    const char sign = form[1];
    form.remove_prefix(2);
    if (sign == 's') {
      const std::string_view next = form.substr(0, form.find('%'));
      const std::size_t at = text.find(next);
      if (at == std::string_view::npos) {
        return false;
      }
      text.remove_prefix(at);
    } else if (!TakeValue(sign, text, message)) {
      return false;
    }
  }
  return true;
}

}  // namespace

LogMessage ReadMessage(const LogLine& line) {
  for (const Form& form : kForms) {
    if (form.tag != line.tag) {
      continue;
    }
    LogMessage message;
    if (Fits(form.text, line.message, message)) {
      message.kind = form.kind;
      message.words = form.words;
      return message;
    }
  }
  return {};
}

}  // namespace tmsc::ctl
