#include "socket_manager/tcp_socket_manager.h"

#include <Poco/Format.h>
#include <Poco/Mutex.h>
#include <Poco/ScopedLock.h>

namespace tmsc {

namespace {

using Lock = Poco::ScopedLock<Poco::Mutex>;
Poco::Mutex& mutex_ = *new Poco::Mutex;  // never destroyed: units run until the process ends
constexpr std::size_t kSocketMapBuckets = 10;

std::string PoolKey(const std::string& ip_address, int port, int address) {
  return Poco::format("%s_%d_%02d", ip_address, port, address);
}

}  // namespace

TCPSocketManager::TCPSocketManager() : socket_map_(kSocketMapBuckets) {}

TCPSocketManager::~TCPSocketManager() = default;

std::shared_ptr<TCPSocket> TCPSocketManager::GetSocket(const std::string& ip_address, int port,
                                                       int address) {
  const std::string key = PoolKey(ip_address, port, address);
  const Lock lock(mutex_);
  std::shared_ptr<TCPSocket>& socket = socket_map_[key];
  if (!socket) {
    socket = std::make_shared<TCPSocket>(ip_address, port);
  }
  return socket;
}

ExclusiveSocket TCPSocketManager::LockSocket(const std::string& ip_address, int port, int address,
                                             const std::optional<Deadline>& deadline) {
  while (true) {
    std::shared_ptr<TCPSocket> socket = GetSocket(ip_address, port, address);
    std::unique_lock<TimedMutex> lock(socket->ExchangeMutex(), std::defer_lock);
    if (!deadline) {
      lock.lock();
    } else if (!lock.try_lock_until(deadline->Moment())) {
      return {};
    }
    // The exchange before this one may have failed and removed the socket meanwhile.
    if (GetSocket(ip_address, port, address) == socket) {
      return {std::move(socket), std::move(lock)};
    }
  }
}

void TCPSocketManager::RemoveSocket(const std::string& ip_address, int port, int address) {
  const std::string key = PoolKey(ip_address, port, address);
  const Lock lock(mutex_);
  const auto found = socket_map_.find(key);
  if (found != socket_map_.end()) {
    found->second->Close();
    socket_map_.erase(found);
  }
}

}  // namespace tmsc
