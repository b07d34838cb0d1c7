#ifndef TAMSEL_TESTS_SUPPORT_RAW_CLIENT_H_
#define TAMSEL_TESTS_SUPPORT_RAW_CLIENT_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "communication_common.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {

enum class StreamEnd { kNone, kEnd, kReset };

/// Everything the daemon sent on one connection.
struct Reply {
  std::vector<byte> bytes;
  StreamEnd end = StreamEnd::kNone;  // none: the deadline passed first

  /// Of a type that there is not when these are not the bytes of a response.
  ResponseReceiveData Response() const {
    ResponseReceiveData response{};
    response.header.type = -100;
    if (bytes.size() == sizeof(response)) {
      std::memcpy(&response, bytes.data(), sizeof(response));
    }
    return response;
  }
};

/// A client that need not keep to the protocol.
class RawClient {
 public:
  RawClient() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  explicit RawClient(Descriptor connected) : socket_(std::move(connected)) {}
  explicit RawClient(const std::string& path) : RawClient() { Connect(path); }

  void Connect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const timeval limit{10, 0};
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    EXPECT_EQ(::connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0)
        << std::strerror(errno);
  }

  /// A client that sends the first `size` bytes of a request.
  template <typename Request>
  RawClient(const std::string& path, const Request& request, std::size_t size = sizeof(Request))
      : RawClient(path) {
    Send(&request, size);
  }

  void Send(const void* bytes, std::size_t size) {
    EXPECT_EQ(::send(socket_.Get(), bytes, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
  }
  void EndInput() { ::shutdown(socket_.Get(), SHUT_WR); }
  void Close() { socket_.Reset(); }

  Reply Read(int limit_ms) {
    Reply reply;
    const Deadline deadline{std::chrono::milliseconds(limit_ms)};
    while (ReadOnce(reply, deadline)) {
    }
    return reply;
  }
  /// Appends what one read brings; false when the deadline has passed or the connection has ended.
  bool ReadOnce(Reply& reply, const Deadline& deadline) {
    if (WaitForDescriptor(socket_.Get(), POLLIN, deadline) <= 0) {
      return false;
    }
    byte buffer[16384];
    const ssize_t count = ::recv(socket_.Get(), buffer, sizeof(buffer), 0);
    if (count <= 0) {
      reply.end = count == 0 ? StreamEnd::kEnd : StreamEnd::kReset;
      return false;
    }
    reply.bytes.insert(reply.bytes.end(), buffer, buffer + count);
    return true;
  }

 private:
  Descriptor socket_;
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_RAW_CLIENT_H_
