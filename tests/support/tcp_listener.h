#ifndef TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
#define TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>

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

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_TCP_LISTENER_H_
