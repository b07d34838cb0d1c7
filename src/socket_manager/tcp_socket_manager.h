#ifndef TAMSEL_SOCKET_MANAGER_TCP_SOCKET_MANAGER_H_
#define TAMSEL_SOCKET_MANAGER_TCP_SOCKET_MANAGER_H_

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "socket_manager/tcp_socket.h"
#include "utility/deadline.h"
#include "utility/singleton.h"

namespace tmsc {

/// A pooled socket with its exchange lock held: nobody else uses the connection until it is
/// released. Move only.
struct ExclusiveSocket {
  std::shared_ptr<TCPSocket> socket;
  std::unique_lock<TimedMutex> lock;
};

/// Keeps the connections to the TCP/IP devices open between exchanges, one for each combination of
/// IP address, port and device address (1 to 255). Any thread.
class TCPSocketManager : public Singleton<TCPSocketManager> {
 public:
  TCPSocketManager();
  virtual ~TCPSocketManager();

  /// The pooled socket, made unconnected when there is none.
  std::shared_ptr<TCPSocket> GetSocket(const std::string& ip_address, int port, int address);

  /// Like GetSocket, and waits until no other exchange uses the socket; no socket when the deadline
  /// passes first. The socket stays the pooled one until it is removed by the holder.
  ExclusiveSocket LockSocket(const std::string& ip_address, int port, int address,
                             const std::optional<Deadline>& deadline = std::nullopt);

  /// Closes and forgets the pooled socket, if there is one. The caller holds its exchange lock, or
  /// no exchange is running.
  void RemoveSocket(const std::string& ip_address, int port, int address);

 private:
  std::unordered_map<std::string, std::shared_ptr<TCPSocket>> socket_map_;  // guarded by mutex_
};

}  // namespace tmsc

#endif  // TAMSEL_SOCKET_MANAGER_TCP_SOCKET_MANAGER_H_
