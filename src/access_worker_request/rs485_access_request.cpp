#include "access_worker_request/rs485_access_request.h"

namespace tmsc {

RS485AccessRequest::RS485AccessRequest(DataHeader* header, DeviceAccessRS485* device_access_rs485,
                                       std::promise<std::shared_ptr<CommunicationResult>>* promise)
    : AccessRequest(promise), p_header_(header), p_device_access_rs485(device_access_rs485) {}

RS485AccessRequest::~RS485AccessRequest() {
  p_header_ = nullptr;
  p_device_access_rs485 = nullptr;
}

void RS485AccessRequest::Execute() {
  promise_->set_value(CommunicationResult::CreateErrorCommunicationResult(
      kRequestDataTypeRS485, kDeviceCommunicationStatusOpenFailed));
}

}  // namespace tmsc
