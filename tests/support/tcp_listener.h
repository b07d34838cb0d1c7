#ifndef TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
#define TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_

#include <arpa/inet.h>
#include <sys/socket.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "support/failing_memory.h"
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

/// A device that answers whatever comes with one register, and has no part in failing memory. To be
/// destroyed after the connections to it.
class AnsweringDevice {
 public:
  ~AnsweringDevice() {
    listener_.Shutdown();
    thread_.join();
  }
  int Port() const { return listener_.Port(); }
  int Connections() const { return connections_; }
  int Requests() const { return requests_; }

 private:
  /// One connection at a time: the next one only when the peer has closed the one before.
  void Run() {
    ExemptThisThread();
    constexpr unsigned char kAnswer[] = {0, 1, 0, 0, 0, 5, 1, 3, 2, 0, 7};
    for (Descriptor peer = listener_.Accept(); peer.IsOpen(); peer = listener_.Accept()) {
      ++connections_;
      char request[64];
      while (::recv(peer.Get(), request, sizeof(request), 0) > 0) {
        ++requests_;
        ::send(peer.Get(), kAnswer, sizeof(kAnswer), MSG_NOSIGNAL);
      }
    }
  }

  Listener listener_;
  std::atomic<int> connections_{0};
  std::atomic<int> requests_{0};
  std::thread thread_{[this] { Run(); }};
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
