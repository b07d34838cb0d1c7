#include "exchange.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {
namespace {

// A full backlog cannot be waited for with poll, so the connect is tried again at this pace.
constexpr int kConnectRetryMs = 5;
constexpr int kBusyRetryMs = 50;

void Pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// One connection from connect to response. Each step returns false after it has set the end.
class Conversation {
 public:
  Conversation(int deadline_ms, ResponseReceiveData& response)
      : deadline_(std::chrono::milliseconds(deadline_ms)), response_(response) {}

  bool Connect(const char* path);
  bool Send(const void* request, std::size_t size);
  bool Receive();
  const ExchangeEnd& End() const { return end_; }

 private:
  bool Fail(int result, const char* what, int error = 0);
  bool Wait(short events, const char* timeout_text);

  Deadline deadline_;
  Descriptor socket_;
  ResponseReceiveData& response_;
  ExchangeEnd end_{TAMSEL_SOCKET_FAILED, "", 0, 0};
};

bool Conversation::Fail(int result, const char* what, int error) {
  end_.result = result;
  end_.what = what;
  end_.error = error;
  response_ = {};
  return false;
}

bool Conversation::Wait(short events, const char* timeout_text) {
  const int ready = WaitForDescriptor(socket_.Get(), events, deadline_);
  if (ready < 0) {
    return Fail(TAMSEL_SOCKET_FAILED, "waiting for the daemon failed", errno);
  }
  return ready > 0 || Fail(TAMSEL_TIMED_OUT, timeout_text);
}

bool Conversation::Connect(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof(address.sun_path)) {
    return Fail(TAMSEL_NOT_REACHABLE, "the socket path is too long", ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path, length);
  socket_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket_.IsOpen()) {
    return Fail(TAMSEL_SOCKET_FAILED, "no socket", errno);
  }
  while (::connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
         0) {
    if (errno != EAGAIN && errno != EINTR) {
      return Fail(TAMSEL_NOT_REACHABLE, "no daemon can be reached", errno);
    }
    const int pause_ms = std::min(kConnectRetryMs, deadline_.RemainingMs());
    if (pause_ms == 0) {
      return Fail(TAMSEL_TIMED_OUT, "the daemon took no connection in time");
    }
    Pause(pause_ms);
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
      return Fail(TAMSEL_SOCKET_FAILED, "sending failed", errno);
    }
  }
  return true;
}

bool Conversation::Receive() {
  constexpr std::size_t kSize = sizeof(response_);
  auto* bytes = reinterpret_cast<char*>(&response_);
  while (end_.received < kSize) {
    const ssize_t count = ::recv(socket_.Get(), bytes + end_.received, kSize - end_.received, 0);
    if (count > 0) {
      end_.received += static_cast<std::size_t>(count);
    } else if (count == 0 || errno == ECONNRESET) {
      // A close with our payload still unread reaches us as a reset.
      return Fail(TAMSEL_CLOSED, "the daemon closed the connection");
    } else if (errno == EAGAIN) {
      if (!Wait(POLLIN, "the daemon did not answer in time")) {
        return false;
      }
    } else if (errno != EINTR) {
      return Fail(TAMSEL_SOCKET_FAILED, "receiving failed", errno);
    }
  }
  end_.result = TAMSEL_OK;
  return true;
}

ExchangeEnd ExchangeOnce(const char* socket_path, const void* request, std::size_t size,
                         int deadline_ms, ResponseReceiveData& response) {
  Conversation conversation(deadline_ms, response);
  if (conversation.Connect(socket_path) && conversation.Send(request, size)) {
    conversation.Receive();
  }
  return conversation.End();
}

}  // namespace

ExchangeEnd ExchangeRecords(const char* socket_path, const void* request, std::size_t size,
                            int deadline_ms, int busy_ms, ResponseReceiveData& response) {
  const Deadline busy_deadline{std::chrono::milliseconds(busy_ms)};
  while (true) {
    const ExchangeEnd end = ExchangeOnce(socket_path, request, size, deadline_ms, response);
    const bool is_busy =
        end.result == TAMSEL_OK && response.receive_data.status == TAMSEL_STATUS_BUSY;
    const int pause_ms = std::min(kBusyRetryMs, busy_deadline.RemainingMs());
    if (!is_busy || pause_ms == 0) {
      return end;
    }
    Pause(pause_ms);
  }
}

}  // namespace tmsc

int tamsel_exchange(const char* socket_path, const void* request, size_t size, int deadline_ms,
                    int busy_ms, tamsel_response* response) {
  *response = {};
  tamsel_data_header header{};
  if (size != sizeof(tamsel_rs485_request) && size != sizeof(tamsel_tcpip_request)) {
    return TAMSEL_BAD_REQUEST;
  }
  std::memcpy(&header, request, sizeof(header));
  const int type = size == sizeof(tamsel_rs485_request) ? TAMSEL_RS485 : TAMSEL_TCPIP;
  if (header.type != type) {
    return TAMSEL_BAD_REQUEST;
  }
  const tmsc::ExchangeEnd end =
      tmsc::ExchangeRecords(socket_path != nullptr ? socket_path : TAMSEL_DEFAULT_SOCKET_PATH,
                            request, size, deadline_ms, busy_ms, *response);
  if (end.result != TAMSEL_OK) {
    errno = end.error;
  }
  return end.result;
}

const tamsel_device_data* tamsel_device_answer(const tamsel_response* response, int address) {
  if (address < 1 || address > TAMSEL_MAX_ADDRESS) {
    return nullptr;
  }
  const tamsel_device_data& slot = response->receive_data.receive_data[address - 1];
  return slot.length >= 0 && slot.length <= TAMSEL_RECEIVE_BUFFER_SIZE ? &slot : nullptr;
}
