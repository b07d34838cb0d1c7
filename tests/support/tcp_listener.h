#ifndef TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
#define TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "support/failing_memory.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {

/// Listens on a free port of 127.0.0.1.
class Listener {
 public:
  explicit Listener(int backlog = 100)
      : descriptor_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(endpoint);
    auto* address = reinterpret_cast<sockaddr*>(&endpoint);
    if (::bind(descriptor_.Get(), address, length) != 0 ||
        ::listen(descriptor_.Get(), backlog) != 0 ||
        ::getsockname(descriptor_.Get(), address, &length) != 0) {
      throw std::runtime_error("no listener");
    }
    port_ = ntohs(endpoint.sin_port);
  }

  int Port() const { return port_; }
  /// The next connection; not open once the listener was shut down.
  Descriptor Accept() const {
    return Descriptor(::accept4(descriptor_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  void Shutdown() const { ::shutdown(descriptor_.Get(), SHUT_RDWR); }

 private:
  Descriptor descriptor_;
  int port_ = 0;
};

/// A device that answers whatever comes with the same bytes, and has no part in failing memory.
class AnsweringDevice {
 public:
  explicit AnsweringDevice(std::vector<unsigned char> answer)
      : answer_(std::move(answer)), thread_([this] { Run(); }) {}
  ~AnsweringDevice() {
    is_over_ = true;
    listener_.Shutdown();
    thread_.join();
  }
  AnsweringDevice(const AnsweringDevice&) = delete;
  AnsweringDevice& operator=(const AnsweringDevice&) = delete;

  int Port() const { return listener_.Port(); }
  int Connections() const { return connections_; }
  int Requests() const { return requests_; }

 private:
  /// One connection at a time: the next one only when the peer has closed the one before.
  void Run() {
    ExemptThisThread();
    for (Descriptor peer = listener_.Accept(); peer.IsOpen(); peer = listener_.Accept()) {
      ++connections_;
      char request[64];
      while (!is_over_) {
        if (WaitForDescriptor(peer.Get(), POLLIN, Deadline(std::chrono::milliseconds(20))) == 0) {
          continue;
        }
        if (::recv(peer.Get(), request, sizeof(request), 0) <= 0) {
          break;
        }
        ++requests_;
        ::send(peer.Get(), answer_.data(), answer_.size(), MSG_NOSIGNAL);
      }
    }
  }

  const std::vector<unsigned char> answer_;
  Listener listener_;
  std::atomic<int> connections_{0};
  std::atomic<int> requests_{0};
  std::atomic<bool> is_over_{false};
  std::thread thread_;
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
