#include "channel/access_channel_tcpip.h"

#include <future>

#include "access_worker_request/tcpip_access_request.h"
#include "log/logger_log.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("AChTCPIP");
// Nothing between the queueing of a request and the wait for it may throw: the promise lives here.
const std::string& kWaitText = ConstantString(" ft.get() wait");
const std::string& kWaitOutText = ConstantString(" ft.get() wait out");
}  // namespace

AccessChannelTCPIP::AccessChannelTCPIP(int channel_index)
    : channel_index_(channel_index), worker_channel_(std::make_unique<Channel>(1, channel_index)) {
  worker_channel_->StartWorkers();
}

AccessChannelTCPIP::~AccessChannelTCPIP() = default;

std::shared_ptr<CommunicationResult> AccessChannelTCPIP::TCPAccess(
    DataHeader* header, DeviceAccessTCPIP* device_access_tcpip) {
  std::promise<std::shared_ptr<CommunicationResult>> pr;
  std::future<std::shared_ptr<CommunicationResult>> ft = pr.get_future();
  worker_channel_->PutRequest(new TCPIPAccessRequest(header, device_access_tcpip, &pr));
  LoggerLog::Verbose(kLogTag, kWaitText);
  std::shared_ptr<CommunicationResult> result = ft.get();
  LoggerLog::Verbose(kLogTag, kWaitOutText);
  return result;
}

}  // namespace tmsc
