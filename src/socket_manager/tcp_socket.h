#ifndef TAMSEL_SOCKET_MANAGER_TCP_SOCKET_H_
#define TAMSEL_SOCKET_MANAGER_TCP_SOCKET_H_

#include <sys/time.h>

#include <string>

#include "utility/descriptor.h"
#include "utility/descriptor_limit.h"
#include "utility/timed_mutex.h"

namespace tmsc {

/// One IPv4 TCP client connection, with bounded connect, send and receive. Nothing is logged:
/// failures are return values.
///
/// A socket serves one exchange at a time: whoever uses it holds ExchangeMutex() meanwhile. All
/// members are guarded by that mutex, except the constant address and port.
class TCPSocket {
 public:
  /// Values of Connect and ConnectNonb other than 0 (connected) and a positive socket error number.
  static constexpr int kNoDescriptor = -1;
  static constexpr int kConnectFailed = -2;
  static constexpr int kConnectTimeout = -3;
  static constexpr int kErrorUnreadable = -4;
  static constexpr int kWaitFailed = -5;

  /// Opens nothing. `ip_address` is a dotted IPv4 address.
  TCPSocket(const std::string& ip_address, int port);
  /// Close().
  virtual ~TCPSocket();
  TCPSocket(const TCPSocket&) = delete;
  TCPSocket& operator=(const TCPSocket&) = delete;

  /// Connects within `timeout` ms, 0 or less for no limit. A socket that was created already is
  /// taken as connected, without a test. Returns 0 when connected; -1 no descriptor, or none left
  /// for devices (DeviceDescriptorShare); -2 the connect failed at once; -3 time-out,
  /// the socket is closed; -4 the socket's error cannot be read; -5 the wait failed; a positive
  /// value: the error number that the connect ended with. After a failure the caller closes the
  /// socket.
  int Connect(int timeout);

  /// Closes the connection; harmless when there is none.
  void Close();

  /// Bounds each receive and send, in ms; 0 for no limit, less than 0 makes each end at once. Does
  /// nothing before Connect.
  void SetReadWriteTimeout(int read_timeout, int write_timeout);

  /// One send of `length` bytes. Returns the bytes sent or -1; a connection that the peer has
  /// closed is such a failure and raises no signal.
  int SendBytes(const void* buffer, int length);

  /// One receive of at most `length` bytes. Returns the bytes received, 0 when the peer has closed,
  /// -1 on an error or when the time-out has passed.
  int ReceiveBytes(void* buffer, int length);

  /// The bounded connect that Connect uses.
  int ConnectNonb(int timeout);

  /// Whether the connection exists and is still as the last exchange left it: not closed by the
  /// peer, no error, nothing left to read. Does not block.
  bool IsReusable() const;

  /// Held for the length of an exchange.
  TimedMutex& ExchangeMutex() { return exchange_mutex_; }

  int GetDescriptor() const { return sockfd_.Get(); }
  bool IsSocketCreated() const { return is_socket_created; }

 private:
  int PendingError() const;

  Descriptor sockfd_;
  DeviceDescriptorShare descriptor_share_;  // of sockfd_
  const std::string ip_address_;
  const int port_;
  timeval read_timeout_{};
  timeval write_timeout_{};
  bool is_socket_created = false;
  TimedMutex exchange_mutex_;
};

}  // namespace tmsc

#endif  // TAMSEL_SOCKET_MANAGER_TCP_SOCKET_H_
