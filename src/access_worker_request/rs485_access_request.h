#ifndef TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_

#include <chrono>
#include <future>
#include <memory>

#include "access_worker_request/access_request.h"
#include "access_worker_request/rs485_port_use.h"
#include "communication_common.h"
#include "health/health_keeper.h"
#include "vlm_rs485.h"

namespace tmsc {

/// Registered with the serial library for the length of an exchange; only logs.
void Rs485ListenerProc();

/// One RS485 exchange: opens the channel's port if need be, hands the library every device's line
/// parameters and frame, runs the communication cycle and gathers the answers. Failures of the
/// library become the status of the whole request.
class RS485AccessRequest : public AccessRequest {
 public:
  /// Header, payload and promise stay the caller's own and outlive Execute.
  RS485AccessRequest(DataHeader* header, DeviceAccessRS485* device_access_rs485,
                     std::promise<std::shared_ptr<CommunicationResult>>* promise);
  ~RS485AccessRequest() override;

  /// Performs the exchange and fulfils the promise with its result.
  void Execute() override;

 private:
  std::shared_ptr<CommunicationResult> Perform();
  int UsePort();
  int Open();
  void SetPortParameters();
  int PutFrames(unsigned int& flags);
  bool PutFrame(SendData& entry);
  int RunCycle(unsigned int flags);
  int StartFailed();
  std::shared_ptr<CommunicationResult> CollectAnswers();
  HealthEnd CollectAnswer(const receive_data* answer, const SendData& entry,
                          DeviceReceiveData& slot);
  void ReportHealth(const SendData& entry, const HealthEnd& end) const;
  HealthEnd FailureEnd(int status) const;
  void ReportFailure(int status) const;

  template <typename Attempt>
  bool TryRepeatedly(Attempt attempt);

  DataHeader* p_header_;
  DeviceAccessRS485* p_device_access_rs485;

  // Set by Perform.
  Rs485PortUse* p_port_ = nullptr;
  int channel_ = 0;
  int health_channel_ = 0;  // the same, or 0: the request is not counted
  int attempts_ = 1;
  std::chrono::milliseconds retry_interval_{0};
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_
