#ifndef TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_

#include <future>
#include <memory>

#include "access_worker_request/access_request.h"
#include "communication_common.h"

namespace tmsc {

/// One RS485 exchange. There is no serial access in this version: every request is answered with
/// kDeviceCommunicationStatusOpenFailed.
class RS485AccessRequest : public AccessRequest {
 public:
  /// Header, payload and promise stay the caller's own and outlive Execute.
  RS485AccessRequest(DataHeader* header, DeviceAccessRS485* device_access_rs485,
                     std::promise<std::shared_ptr<CommunicationResult>>* promise);
  ~RS485AccessRequest() override;

  void Execute() override;

 private:
  DataHeader* p_header_;
  DeviceAccessRS485* p_device_access_rs485;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_H_
