#include "socket_manager/tcp_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>

#include "utility/deadline.h"

namespace tmsc {

namespace {

// A device that lost its power answers no probe: the connection then ends after about a minute and
// a half, also when it has no time-outs (tcp(7)).
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kKeepAliveProbes = 3;

void SetOption(int descriptor, int level, int name, int value) {
  ::setsockopt(descriptor, level, name, &value, sizeof(value));
}

void KeepAlive(int descriptor) {
  SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
  SetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
}

timeval ToTimeval(int milliseconds) {
  // Negative seconds end a send or receive at once (net/core/sock.c); with a negative rest of
  // microseconds the system would refuse the value and keep the one before.
  return milliseconds < 0 ? timeval{-1, 0}
                          : timeval{milliseconds / 1000, (milliseconds % 1000) * 1000};
}

/// Repeats a system call that a signal interrupted.
template <typename SystemCall>
int RetryInterrupted(SystemCall call) {
  ssize_t result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return static_cast<int>(result);
}

}  // namespace

TCPSocket::TCPSocket(const std::string& ip_address, int port)
    : ip_address_(ip_address), port_(port) {}

TCPSocket::~TCPSocket() {
  Close();
}

int TCPSocket::Connect(int timeout) {
  if (is_socket_created) {
    return 0;
  }
  if (descriptor_share_.Take()) {
    sockfd_.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  }
  if (!sockfd_.IsOpen()) {
    descriptor_share_.Release();
    return kNoDescriptor;
  }
  is_socket_created = true;
  KeepAlive(sockfd_.Get());
  return ConnectNonb(timeout);
}

int TCPSocket::ConnectNonb(int timeout) {
  const int flags = ::fcntl(sockfd_.Get(), F_GETFL);
  ::fcntl(sockfd_.Get(), F_SETFL, flags | O_NONBLOCK);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port_));
  address.sin_addr.s_addr = ::inet_addr(ip_address_.c_str());

  int error = ::connect(sockfd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (error < 0 && errno != EINPROGRESS) {
    error = kConnectFailed;
  } else if (error < 0) {
    const auto deadline =
        timeout > 0 ? std::optional<Deadline>(std::chrono::milliseconds(timeout)) : std::nullopt;
    const int ready = WaitForDescriptor(sockfd_.Get(), POLLIN | POLLOUT, deadline);
    if (ready == 0) {
      Close();
      return kConnectTimeout;
    }
    error = ready > 0 ? PendingError() : kWaitFailed;
  }
  ::fcntl(sockfd_.Get(), F_SETFL, flags);
  return error;
}

int TCPSocket::PendingError() const {
  int error = 0;
  socklen_t length = sizeof(error);
  const int result = ::getsockopt(sockfd_.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  return result == 0 ? error : kErrorUnreadable;
}

void TCPSocket::Close() {
  sockfd_.Reset();
  descriptor_share_.Release();
  is_socket_created = false;
}

void TCPSocket::SetReadWriteTimeout(int read_timeout, int write_timeout) {
  if (!is_socket_created) {
    return;
  }
  read_timeout_ = ToTimeval(read_timeout);
  write_timeout_ = ToTimeval(write_timeout);
  ::setsockopt(sockfd_.Get(), SOL_SOCKET, SO_RCVTIMEO, &read_timeout_, sizeof(read_timeout_));
  ::setsockopt(sockfd_.Get(), SOL_SOCKET, SO_SNDTIMEO, &write_timeout_, sizeof(write_timeout_));
}

int TCPSocket::SendBytes(const void* buffer, int length) {
  return RetryInterrupted([&] {
    return ::send(sockfd_.Get(), buffer, static_cast<std::size_t>(length), MSG_NOSIGNAL);
  });
}

int TCPSocket::ReceiveBytes(void* buffer, int length) {
  return RetryInterrupted(
      [&] { return ::recv(sockfd_.Get(), buffer, static_cast<std::size_t>(length), 0); });
}

bool TCPSocket::IsReusable() const {
  char next = 0;
  return is_socket_created && ::recv(sockfd_.Get(), &next, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace tmsc
