#ifndef TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
#define TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "support/failing_memory.h"
#include "utility/descriptor.h"

namespace tmsc::test {

/// Listens on a free port of 127.0.0.1.
class Listener {
 public:
  explicit Listener(int backlog = 100)
      : descriptor_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in endpoint{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof(endpoint);
    auto* address = reinterpret_cast<sockaddr*>(&endpoint);
    EXPECT_TRUE(::bind(descriptor_.Get(), address, length) == 0 &&
                ::listen(descriptor_.Get(), backlog) == 0 &&
                ::getsockname(descriptor_.Get(), address, &length) == 0);
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
struct AnsweringDevice : Listener {
  ~AnsweringDevice() {
    Shutdown();
    thread.join();
  }
  /// One connection at a time: the next one only when the peer has closed the one before.
  void Run() {
    ExemptThisThread();
    constexpr unsigned char kAnswer[] = {0, 1, 0, 0, 0, 5, 1, 3, 2, 0, 7};
    for (Descriptor peer = Accept(); peer.IsOpen(); peer = Accept()) {
      ++connections;
      char request[64];
      while (::recv(peer.Get(), request, sizeof(request), 0) > 0) {
        ++requests;
        ::send(peer.Get(), kAnswer, sizeof(kAnswer), MSG_NOSIGNAL);
      }
    }
  }

  std::atomic<int> connections{0};
  std::atomic<int> requests{0};
  std::thread thread{[this] { Run(); }};
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
