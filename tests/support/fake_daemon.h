#ifndef TAMSEL_FAKE_DAEMON_H_
#define TAMSEL_FAKE_DAEMON_H_

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "communication_common.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {

/// Plays the daemon on a socket in a folder of its own: hands each connection to the script, on one
/// thread, and closes it when the script returns. Throws std::runtime_error when it cannot listen.
class FakeDaemon {
 public:
  /// Gets the connected socket, which stays the caller's.
  using Script = std::function<void(int connection)>;

  /// Starts to accept connections after `accept_delay_ms`; until then they fill the backlog.
  explicit FakeDaemon(Script script, int accept_delay_ms = 0) : script_(std::move(script)) {
    std::string folder = (std::filesystem::temp_directory_path() / "fake-daemon-XXXXXX").string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    int stop_ends[2] = {-1, -1};
    if (::mkdtemp(folder.data()) == nullptr || ::pipe2(stop_ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no folder or pipe for the fake daemon");
    }
    folder_ = folder;
    path_ = folder + "/socket";
    stop_read_.Reset(stop_ends[0]);
    stop_write_.Reset(stop_ends[1]);
    listener_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    if (::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_.Get(), 1) != 0) {
      throw std::runtime_error("the fake daemon cannot listen at " + path_);
    }
    thread_ = std::thread([this, accept_delay_ms] { Serve(accept_delay_ms); });
  }

  ~FakeDaemon() {
    stop_write_.Reset();
    thread_.join();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  const std::string& Path() const { return path_; }

  /// What one read of at most `size` bytes brings within 5 s; empty at the end of the stream.
  static std::vector<byte> ReadOnce(int connection, std::size_t size) {
    std::vector<byte> bytes(size);
    ssize_t count = 0;
    if (WaitForDescriptor(connection, POLLIN, Deadline(std::chrono::seconds(5))) > 0) {
      count = ::recv(connection, bytes.data(), bytes.size(), 0);
    }
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
  }

  static void Send(int connection, const void* bytes, std::size_t size) {
    // A client that has left already is the script's own doing.
    static_cast<void>(::send(connection, bytes, size, MSG_NOSIGNAL));
  }

  /// A response with a status of the whole request and no device's answer.
  static ResponseReceiveData MakeResponse(int type, int status) {
    ResponseReceiveData response{};
    response.header.type = type;
    response.receive_data.status = status;
    return response;
  }

  static void SetAnswer(ResponseReceiveData& response, int address, byte status,
                        const std::vector<byte>& frame) {
    DeviceReceiveData& slot = response.receive_data.receive_data[address - 1];
    slot.length = static_cast<std::int16_t>(frame.size());
    slot.status = status;
    std::copy(frame.begin(), frame.end(), slot.data);
  }

 private:
  void Serve(int accept_delay_ms) {
    pollfd stop{stop_read_.Get(), POLLIN, 0};
    if (::poll(&stop, 1, accept_delay_ms) != 0) {
      return;
    }
    while (true) {
      pollfd entries[] = {stop, {listener_.Get(), POLLIN, 0}};
      if (::poll(entries, 2, -1) < 0 || entries[0].revents != 0) {
        return;
      }
      const Descriptor connection(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (connection.IsOpen()) {
        script_(connection.Get());
      }
    }
  }

  Script script_;
  std::string folder_;
  std::string path_;
  Descriptor stop_read_;
  Descriptor stop_write_;
  Descriptor listener_;
  std::thread thread_;
};

}  // namespace tmsc

#endif  // TAMSEL_FAKE_DAEMON_H_
