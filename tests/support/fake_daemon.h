#ifndef TAMSEL_FAKE_DAEMON_H_
#define TAMSEL_FAKE_DAEMON_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "communication_common.h"
#include "support/files.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {

/// The bytes that pairs of hexadecimal digits stand for; blanks between them are left out.
inline std::vector<byte> FromHex(std::string digits) {
  digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
  std::vector<byte> bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    bytes.push_back(static_cast<byte>(std::stoi(digits.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

/// A response with a status of the whole request and no device's answer.
inline ResponseReceiveData Status(int status) {
  return {{}, {status, {}}};
}

/// A response with the answer of one device, whose length is stated as `excess` bytes longer.
inline ResponseReceiveData Answer(int address, int status, const std::string& digits,
                                  int excess = 0) {
  ResponseReceiveData response{};
  DeviceReceiveData& slot = response.receive_data.receive_data[address - 1];
  const std::vector<byte> frame = FromHex(digits);
  slot.length = static_cast<std::int16_t>(static_cast<int>(frame.size()) + excess);
  slot.status = static_cast<byte>(status);
  std::copy(frame.begin(), frame.end(), slot.data);
  return response;
}

/// Plays the daemon on a socket in a folder of its own: hands each connection to the script, on one
/// thread, and closes it when the script returns.
class FakeDaemon {
 public:
  /// Gets the connected socket, which stays the caller's.
  using Script = std::function<void(int connection)>;

  /// Starts to accept connections after `accept_delay_ms`; until then they fill the backlog of one.
  explicit FakeDaemon(Script script, int accept_delay_ms = 0)
      : script_(std::move(script)), listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::listen(listener_.Get(), 1);
    thread_ = std::thread([this, accept_delay_ms] { Serve(accept_delay_ms); });
  }
  ~FakeDaemon() {
    ::shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
  }

  std::string Path() const { return folder_.Path("socket"); }

  /// What one read of at most `size` bytes brings within 5 s; empty at the end of the stream.
  static std::vector<byte> ReadOnce(int connection, std::size_t size) {
    std::vector<byte> bytes(size);
    WaitForDescriptor(connection, POLLIN, Deadline(std::chrono::seconds(5)));
    const ssize_t count = ::recv(connection, bytes.data(), size, MSG_DONTWAIT);
    bytes.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
    return bytes;
  }

  /// A client that has left already is the script's own doing.
  static void Send(int connection, const ResponseReceiveData& response, std::size_t begin = 0,
                   std::size_t end = sizeof(ResponseReceiveData)) {
    const auto* bytes = reinterpret_cast<const byte*>(&response);
    static_cast<void>(::send(connection, bytes + begin, end - begin, MSG_NOSIGNAL));
  }

 private:
  void Serve(int accept_delay_ms) {
    // Both waits end at once when the destructor shuts the listener down.
    pollfd listener{listener_.Get(), 0, 0};
    bool is_open = ::poll(&listener, 1, accept_delay_ms) == 0;
    while (is_open) {
      const Descriptor connection(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      is_open = connection.IsOpen();
      if (is_open) {
        script_(connection.Get());
      }
    }
  }

  Script script_;
  test::TempFolder folder_;
  Descriptor listener_;
  std::thread thread_;
};

}  // namespace tmsc

#endif  // TAMSEL_FAKE_DAEMON_H_
