#include "bare_programs.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace tmsc::bench {

namespace {

bool ExchangeWith(const Device& device) {
  const Descriptor connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(device.port));
  address.sin_addr.s_addr = ::inet_addr(device.ip.c_str());
  const std::vector<byte> frame = ReadFrame(device.address);
  if (::connect(connection.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::send(connection.Get(), frame.data(), frame.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(frame.size())) {
    return false;
  }
  byte answer[kDeviceCommunicationReceiveDataBuffSize];
  ssize_t total = 0;
  ssize_t count = 0;
  while ((count = ::recv(connection.Get(), answer, sizeof(answer), 0)) > 0) {
    total += count;
  }
  return total > 0;
}

}  // namespace

std::vector<byte> ReadFrame(int address) {
  // MBAP header and PDU of the Modbus application protocol, function 3.
  return {0, 1, 0, 0, 0, 6, static_cast<byte>(address), 3, 0, 0, 0, 2};
}

void ExchangeBare(const std::vector<Device>& devices) {
  std::atomic<bool> is_good{true};
  std::vector<std::thread> threads;
  for (const Device& device : devices) {
    threads.emplace_back([&] {
      if (!ExchangeWith(device)) {
        is_good = false;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  if (!is_good) {
    throw std::runtime_error("a device did not answer the bare program");
  }
}

BareEcho::BareEcho(const std::string& path)
    : listening_socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (::bind(listening_socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) !=
          0 ||
      ::listen(listening_socket_.Get(), 100) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  accept_thread_ = std::thread([this] { Accept(); });
  serve_thread_ = std::thread([this] { Serve(); });
}

BareEcho::~BareEcho() {
  ::shutdown(listening_socket_.Get(), SHUT_RDWR);
  accept_thread_.join();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_ended_ = true;
  }
  changed_.notify_one();
  serve_thread_.join();
}

void BareEcho::Accept() {
  while (true) {
    Descriptor connection(::accept4(listening_socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.IsOpen()) {
      return;
    }
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      accepted_.push_back(std::move(connection));
    }
    changed_.notify_one();
  }
}

void BareEcho::Serve() {
  const auto response = std::make_unique<ResponseReceiveData>();
  while (true) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return is_ended_ || !accepted_.empty(); });
    if (accepted_.empty()) {
      return;
    }
    const Descriptor connection = std::move(accepted_.back());
    accepted_.pop_back();
    lock.unlock();
    byte request[sizeof(DataHeader) + sizeof(DeviceAccessTCPIP)];
    if (::recv(connection.Get(), request, sizeof(request), MSG_WAITALL) ==
        static_cast<ssize_t>(sizeof(request))) {
      ::send(connection.Get(), response.get(), sizeof(*response), MSG_NOSIGNAL);
    }
  }
}

}  // namespace tmsc::bench
