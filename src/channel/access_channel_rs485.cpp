#include "channel/access_channel_rs485.h"

#include <future>

#include "access_worker_request/rs485_access_request.h"

namespace tmsc {

AccessChannelRS485::AccessChannelRS485(int channel_index)
    : channel_index_(channel_index), worker_channel_(std::make_unique<Channel>(1, channel_index)) {
  worker_channel_->StartWorkers();
}

AccessChannelRS485::~AccessChannelRS485() = default;

std::shared_ptr<CommunicationResult> AccessChannelRS485::RS485Access(
    DataHeader* header, DeviceAccessRS485* device_access_rs485) {
  std::promise<std::shared_ptr<CommunicationResult>> pr;
  std::future<std::shared_ptr<CommunicationResult>> ft = pr.get_future();
  worker_channel_->PutRequest(new RS485AccessRequest(header, device_access_rs485, &pr));
  return ft.get();
}

}  // namespace tmsc
