#include "access_worker_request/tcpip_access_request.h"

#include <Poco/Exception.h>

#include <utility>

#include "log/log_text.h"
#include "utility/constant_string.h"
#include "worker_thread/thread_group.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("TCPIPAReq");
constexpr int kNoChannel = 0;
}  // namespace

TCPIPAccessRequest::TCPIPAccessRequest(DataHeader* header, DeviceAccessTCPIP* device_access_tcpip,
                                       std::promise<std::shared_ptr<CommunicationResult>>* promise)
    : AccessRequest(promise), p_header_(header), p_device_access_tcpip_(device_access_tcpip) {}

TCPIPAccessRequest::~TCPIPAccessRequest() {
  p_header_ = nullptr;
  p_device_access_tcpip_ = nullptr;
}

void TCPIPAccessRequest::Execute() {
  Fulfil([this] { return Perform(); });
}

std::shared_ptr<CommunicationResult> TCPIPAccessRequest::Perform() {
  const bool is_counted = p_header_ != nullptr && IsCounted(*p_header_);
  const int channel = is_counted ? int{p_header_->channel_index} : kNoChannel;
  UnitList access_unit_list;
  for (int i = 0; i < kMaxDeviceCountAtChannel; ++i) {
    NetworkParams* network_params = &p_device_access_tcpip_->port_params[i];
    if (network_params->address != 0) {
      access_unit_list.push_back(std::make_shared<TCPIPAccessUnit>(
          network_params, &p_device_access_tcpip_->send_data[i], channel));
    }
  }
  RunUnits(access_unit_list);

  auto record = CommunicationResult::AllocateRecord(kRequestDataTypeTCPIP);
  for (const auto& unit : access_unit_list) {
    const int address = unit->GetSendData()->address;
    if (address < 1 || address > kMaxDeviceCountAtChannel) {
      continue;  // no slot to answer in
    }
    DeviceReceiveData& slot = record->receive_data.receive_data[address - 1];
    if (unit->ReceiveData() != nullptr) {
      slot = *unit->ReceiveData();
    } else {
      slot.length = 0;
    }
    slot.status = static_cast<byte>(unit->Status());
  }
  return CommunicationResult::Wrap(std::move(record));
}

void TCPIPAccessRequest::RunUnits(const UnitList& access_unit_list) {
  ThreadGroup threads;
  for (const auto& unit : access_unit_list) {
    try {
      threads.Start(*unit);
    } catch (const Poco::Exception& failure) {
      LoggerLog::Error(kLogTag, LogText("thread start exception:", failure.displayText()));
      unit->ReportHealth({TAMSEL_CAUSE_DAEMON_FAILURE});
    }
  }
  LoggerLog::Debug(kLogTag, "joinAll wait");
  threads.JoinAll();
  LoggerLog::Verbose(kLogTag, "joinAll wait out");
}

}  // namespace tmsc
