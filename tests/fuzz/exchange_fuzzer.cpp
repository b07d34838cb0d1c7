// What a TCP/IP device sends, through a whole exchange of the daemon.

#include <cstring>
#include <mutex>

#include "access_worker_request/tcpip_access_unit.h"
#include "fuzz/input_file.h"
#include "request_builder.h"
#include "socket_manager/tcp_socket_manager.h"
#include "support/tcp_listener.h"

using namespace tmsc;

namespace {

/// Sends what it is told to whoever asks, in two pieces, and closes.
class Device : public test::Listener {
 public:
  void Answer(std::string bytes, std::size_t cut) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_ = std::move(bytes);
    cut_ = std::min(cut, bytes_.size());
  }

 private:
  void Run() {
    while (true) {
      const Descriptor peer = Accept();
      char request[64];
      ::recv(peer.Get(), request, sizeof(request), 0);
      const std::lock_guard<std::mutex> lock(mutex_);
      ::send(peer.Get(), bytes_.data(), cut_, MSG_NOSIGNAL);
      ::send(peer.Get(), bytes_.data() + cut_, bytes_.size() - cut_, MSG_NOSIGNAL);
    }
  }

  std::mutex mutex_;  // guards the two below
  std::string bytes_;
  std::size_t cut_ = 0;
  std::thread thread_{[this] { Run(); }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Device& device = *new Device;
  static const bool is_set_up = (TCPSocketManager::Create(), true);
  if (!is_set_up || size == 0) {
    return 0;
  }
  const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  device.Answer(bytes, data[0]);
  TcpIpRequest request = MakeTcpIpRequest(1);
  AddTcpIpDevice(request, 1, "127.0.0.1", device.Port(), 2000,
                 {0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1});
  TCPIPAccessUnit unit(&request.payload.port_params[0], &request.payload.send_data[0]);
  unit.run();
  TCPSocketManager::GetInstance()->RemoveSocket("127.0.0.1", device.Port(), 1);

  // A header whose length field fits the buffer and is kept, or no answer.
  const std::size_t length = bytes.size() < 6 ? 0 : 6U + (data[5] << 8 | data[6]);
  const bool is_answer =
      length > 0 && length <= bytes.size() && length <= kDeviceCommunicationReceiveDataBuffSize;
  const DeviceReceiveData& slot = *unit.ReceiveData();
  test::Require((unit.Status() == 0) == is_answer);
  test::Require(!is_answer || (static_cast<std::size_t>(slot.length) == length &&
                               std::memcmp(slot.data, bytes.data(), length) == 0));
  return 0;
}
