#ifndef TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_UNIT_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_UNIT_H_

#include <Poco/Runnable.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "communication_common.h"
#include "health/health_keeper.h"
#include "socket_manager/tcp_socket.h"
#include "utility/deadline.h"

namespace tmsc {

/// One exchange with one TCP/IP device: send the frame, receive one Modbus/TCP frame (its length is
/// in bytes 4 and 5 of the MBAP header, "Modbus Messaging on TCP/IP Implementation Guide" 3.1.3),
/// drain what else comes. Runs on a thread of its own; the results are for the thread that joined
/// it.
class TCPIPAccessUnit : public Poco::Runnable {
 public:
  /// Both records stay the caller's own and outlive the unit. Health is kept for the device on
  /// `channel`, 0: for none.
  TCPIPAccessUnit(NetworkParams* network_params, SendData* send_data, int channel = 0);
  ~TCPIPAccessUnit() override;

  void run() override;

  /// One exchange; true when it succeeded or there was nothing to send.
  bool AccessDevice();

  /// Keeps how the exchange ended as the health of the device; the first report counts.
  void ReportHealth(const HealthEnd& end);

  /// 0, or the kTCPIPUnitStatus values of what failed.
  int Status();
  /// The answer; null before run. Stays the unit's own.
  DeviceReceiveData* ReceiveData();
  SendData* GetSendData();

 private:
  struct FreeBuffer {
    void operator()(DeviceReceiveData* buffer) const { std::free(buffer); }
  };
  using LogCall = void (*)(const std::string& tag, const std::string& message);

  std::optional<Deadline> LockDeadline() const;
  bool IsPossible();
  bool Exchange(TCPSocket& socket);
  HealthEnd AnswerEnd(const byte* data, int data_length) const;
  bool Connect(TCPSocket& socket);
  bool Send(TCPSocket& socket);
  bool ReceiveHeader(TCPSocket& socket);
  bool ReceiveBody(TCPSocket& socket, int data_length);
  std::chrono::milliseconds DrainSilence() const;
  bool Drain(TCPSocket& socket) const;
  bool Refuse(int status, const HealthEnd& end, const std::string& text);
  bool Fail(TCPSocket& socket, int status, const HealthEnd& end, LogCall log,
            const std::string& text);
  void Forget(TCPSocket& socket);
  void HandleException(const std::exception& failure, TCPSocket* socket) noexcept;

  NetworkParams* p_network_params_;
  SendData* p_send_data_;
  std::unique_ptr<DeviceReceiveData, FreeBuffer> p_device_receive_data_;
  const int channel_;
  int status_ = 0;
  bool is_reported_ = false;
  std::chrono::steady_clock::time_point sent_at_;
  const std::string ip_;  // the address text; empty when it does not end within its field
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_TCPIP_ACCESS_UNIT_H_
