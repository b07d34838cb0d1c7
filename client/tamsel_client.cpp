#include "tamsel_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {
namespace {

// A full backlog cannot be waited for with poll, so the connect is tried again at this pace.
constexpr int kConnectRetryMs = 5;

std::string ErrorText(int error_number) {
  return std::generic_category().message(error_number);
}

/// One connection from connect to response. Each step returns false after it has set the result.
class Conversation {
 public:
  explicit Conversation(int deadline_ms) : deadline_(std::chrono::milliseconds(deadline_ms)) {}

  bool Connect(const std::string& path);
  bool Send(const void* request, std::size_t size);
  bool Receive();
  ExchangeResult TakeResult() { return std::move(result_); }

 private:
  bool Fail(Outcome outcome, const std::string& text);
  bool Wait(short events, const char* timeout_text);

  Deadline deadline_;
  Descriptor socket_;
  ExchangeResult result_;
};

bool Conversation::Fail(Outcome outcome, const std::string& text) {
  result_.outcome = outcome;
  result_.text = text;
  result_.response = {};
  return false;
}

bool Conversation::Wait(short events, const char* timeout_text) {
  const int ready = WaitForDescriptor(socket_.Get(), events, deadline_);
  if (ready < 0) {
    return Fail(Outcome::kSocketError, "waiting for the daemon failed: " + ErrorText(errno));
  }
  return ready > 0 || Fail(Outcome::kTimedOut, timeout_text);
}

bool Conversation::Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return Fail(Outcome::kNotReachable, "the socket path " + path + " is too long");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  socket_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket_.IsOpen()) {
    return Fail(Outcome::kSocketError, "no socket: " + ErrorText(errno));
  }
  while (::connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
         0) {
    if (errno != EAGAIN && errno != EINTR) {
      return Fail(Outcome::kNotReachable,
                  "no daemon can be reached at " + path + ": " + ErrorText(errno));
    }
    const int pause_ms = std::min(kConnectRetryMs, deadline_.RemainingMs());
    if (pause_ms == 0) {
      return Fail(Outcome::kTimedOut, "the daemon took no connection in time");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
  }
  return true;
}

bool Conversation::Send(const void* request, std::size_t size) {
  const auto* bytes = static_cast<const char*>(request);
  std::size_t sent = 0;
  while (sent < size) {
    const ssize_t count = ::send(socket_.Get(), bytes + sent, size - sent, MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      if (!Wait(POLLOUT, "the daemon did not take the request in time")) {
        return false;
      }
    } else if (errno == EPIPE || errno == ECONNRESET) {
      // The daemon has closed already; what it may have answered before can still be read.
      return true;
    } else if (errno != EINTR) {
      return Fail(Outcome::kSocketError, "sending failed: " + ErrorText(errno));
    }
  }
  return true;
}

bool Conversation::Receive() {
  constexpr std::size_t kSize = sizeof(result_.response);
  auto* bytes = reinterpret_cast<char*>(&result_.response);
  std::size_t received = 0;
  while (received < kSize) {
    const ssize_t count = ::recv(socket_.Get(), bytes + received, kSize - received, 0);
    if (count > 0) {
      received += static_cast<std::size_t>(count);
    } else if (count == 0 || errno == ECONNRESET) {
      // A close with our payload still unread reaches us as a reset.
      return Fail(Outcome::kClosedWithoutAnswer,
                  received == 0
                      ? "the daemon closed the connection without an answer"
                      : "the daemon closed the connection after " + std::to_string(received) +
                            " of " + std::to_string(kSize) + " bytes");
    } else if (errno == EAGAIN) {
      if (!Wait(POLLIN, "the daemon did not answer in time")) {
        return false;
      }
    } else if (errno != EINTR) {
      return Fail(Outcome::kSocketError, "receiving failed: " + ErrorText(errno));
    }
  }
  result_.outcome = Outcome::kAnswered;
  return true;
}

}  // namespace

TamselClient::TamselClient(std::string socket_path) : socket_path_(std::move(socket_path)) {}

ExchangeResult TamselClient::Exchange(const TcpIpRequest& request, int deadline_ms) const {
  return ExchangeBytes(&request, sizeof(request), deadline_ms);
}

ExchangeResult TamselClient::Exchange(const Rs485Request& request, int deadline_ms) const {
  return ExchangeBytes(&request, sizeof(request), deadline_ms);
}

ExchangeResult TamselClient::ExchangeBytes(const void* request, std::size_t size,
                                           int deadline_ms) const {
  Conversation conversation(deadline_ms);
  if (conversation.Connect(socket_path_) && conversation.Send(request, size)) {
    conversation.Receive();
  }
  return conversation.TakeResult();
}

std::optional<DeviceReply> DeviceAnswer(const ResponseReceiveData& response, int address) {
  if (address < 1 || address > kMaxDeviceCountAtChannel) {
    return std::nullopt;
  }
  const DeviceReceiveData& slot = response.receive_data.receive_data[address - 1];
  if (slot.length < 0 || slot.length > kDeviceCommunicationReceiveDataBuffSize) {
    return std::nullopt;
  }
  return DeviceReply{slot.status, std::vector<byte>(slot.data, slot.data + slot.length)};
}

}  // namespace tmsc
