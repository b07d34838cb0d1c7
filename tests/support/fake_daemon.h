#ifndef TAMSEL_FAKE_DAEMON_H_
#define TAMSEL_FAKE_DAEMON_H_

#include <Poco/HexBinaryDecoder.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "communication_common.h"
#include "support/files.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {

/// The bytes that pairs of hexadecimal digits stand for, with or without blanks between them.
inline std::vector<byte> FromHex(const std::string& digits) {
  std::istringstream stream(digits);
  Poco::HexBinaryDecoder bytes(stream);
  return {std::istreambuf_iterator<char>(bytes), std::istreambuf_iterator<char>()};
}

/// A response with the answer of device 5, whose length is stated as `excess` bytes longer.
inline ResponseReceiveData Answer(int status, const std::string& digits, int excess = 0) {
  ResponseReceiveData response{};
  DeviceReceiveData& slot = response.receive_data.receive_data[4];
  const std::vector<byte> frame = FromHex(digits);
  slot = {std::int16_t(int(frame.size()) + excess), static_cast<byte>(status), {}};
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
  explicit FakeDaemon(const Script& script, int accept_delay_ms = 0) {
    sockaddr_un address{AF_UNIX, {}};
    Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::listen(listener_.Get(), 1);
    thread_ = std::thread([this, script, accept_delay_ms] {
      // Both waits end at once when the destructor shuts the listener down.
      WaitForDescriptor(listener_.Get(), 0, Deadline(std::chrono::milliseconds(accept_delay_ms)));
      for (int peer = 0;
           (peer = ::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        script(Descriptor(peer).Get());
      }
    });
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
  const test::TempFolder folder_;
  const Descriptor listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::thread thread_;
};

}  // namespace tmsc

#endif  // TAMSEL_FAKE_DAEMON_H_
