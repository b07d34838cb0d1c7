#include "access_worker_request/rs485_access_request.h"

#include <Poco/Format.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>

#include "health/answer_end.h"
#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/string_util.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("485ARq");

using Cache = Rs485AccessRequestLibcache;

/// A used entry of port_params or send_data. One that has no slot to answer in is none; it leaves a
/// line in the log.
bool IsUsed(int channel, int address) {
  if (address > kMaxDeviceCountAtChannel) {
    LoggerLog::Warn(kLogTag, Poco::format("Dev addr err. <C%d:%02d>", channel, address));
    return false;
  }
  return address != 0;
}

bool IsBroadcast(const SendData& entry) {
  return *FrameOf(entry) == 0;
}

/// How an exchange without an answer ended that the serial library gave `status`: in the words of
/// vlm_rs485.h, with the number, which is all that another library's status says.
HealthEnd EndOf(byte status) {
  switch (status) {
    case VLM_RS485_ANSWERED:  // as the client counts it, who finds no byte
    case VLM_RS485_NO_ANSWER:
      return {TAMSEL_CAUSE_NO_ANSWER, status};
    case VLM_RS485_LINE_ERROR:
      return {TAMSEL_CAUSE_LINE_ERROR, status};
    case VLM_RS485_TOO_LONG:
      return {TAMSEL_CAUSE_TOO_LONG, status};
    case VLM_RS485_PORT_GONE:
      return {TAMSEL_CAUSE_PORT_GONE, status};
    case VLM_RS485_NOT_ITS_ANSWER:
      return {TAMSEL_CAUSE_NOT_ITS_ANSWER, status};
    default:
      return {TAMSEL_CAUSE_OTHER_STATUS, status};
  }
}

/// Whether the library left the error of a serial device that is not there.
bool IsGone(int error) {
  return error == ENOENT || error == ENODEV || error == ENXIO || error == EIO;
}

/// Whether it left that of one that is there and may not be opened.
bool IsRefused(int error) {
  return error == EACCES || error == EPERM || error == EBUSY;
}

std::string HexText(byte* bytes, int count) {
  return StringUtil::BytesToHexString(bytes, static_cast<unsigned int>(count));
}

}  // namespace

void Rs485ListenerProc() {
  LoggerLog::Debug(kLogTag, "Rs485ListenerProc");
}

RS485AccessRequest::RS485AccessRequest(DataHeader* header, DeviceAccessRS485* device_access_rs485,
                                       std::promise<std::shared_ptr<CommunicationResult>>* promise)
    : AccessRequest(promise), p_header_(header), p_device_access_rs485(device_access_rs485) {}

RS485AccessRequest::~RS485AccessRequest() {
  p_header_ = nullptr;
  p_device_access_rs485 = nullptr;
}

void RS485AccessRequest::Execute() {
  Fulfil([this] { return Perform(); });
}

std::shared_ptr<CommunicationResult> RS485AccessRequest::Perform() {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  const int retries =
      std::clamp(settings->GetMWApiRetryCount(), 0, std::numeric_limits<int>::max() - 1);
  attempts_ = retries + 1;
  retry_interval_ = std::chrono::milliseconds(std::max(settings->GetMWApiRetryInterval(), 0));
  std::this_thread::sleep_for(std::chrono::milliseconds(settings->GetRs485StartWait()));
  channel_ = p_device_access_rs485->channel;
  health_channel_ = p_header_ == nullptr || IsCounted(*p_header_) ? channel_ : 0;
  LoggerLog::Verbose(
      kLogTag, LogText("vlm_485_x Exec <C", channel_, "> 2: TID:", Poco::Thread::currentTid()));
  Rs485PortUse port(Cache::Share(), channel_);
  p_port_ = &port;
  const int status = UsePort();
  if (status == kDeviceCommunicationStatusNoError) {
    return CollectAnswers();
  }
  ReportFailure(status);
  return CommunicationResult::CreateErrorCommunicationResult(kRequestDataTypeRS485, status);
}

/// Runs the communication cycle; the request's status when that fails.
int RS485AccessRequest::UsePort() {
  int status = Open();
  if (status != kDeviceCommunicationStatusNoError) {
    return status;
  }
  SetPortParameters();
  LoggerLog::Verbose(kLogTag, "vlm_485_addListn start");
  p_port_->AddEventListener(Rs485ListenerProc);
  LoggerLog::Verbose(kLogTag, "vlm_485_addListn end");
  unsigned int flags = 0;
  status = PutFrames(flags);
  if (status == kDeviceCommunicationStatusNoError) {
    status = RunCycle(flags);
  }
  if (status != kDeviceCommunicationStatusNoError) {
    return status;
  }
  LoggerLog::Verbose(kLogTag, "vlm_485_rmListn start");
  p_port_->RemoveEventListener();
  LoggerLog::Verbose(kLogTag, LogText("vlm_485_rmListn <C", channel_, ">"));
  return kDeviceCommunicationStatusNoError;
}

int RS485AccessRequest::Open() {
  if (channel_ < 1 || channel_ > kMaxChannel) {
    LoggerLog::Warn(kLogTag, LogText("Ch err. ch[", channel_, "]"));
    return kDeviceCommunicationChannelSettingError;
  }
  if (!p_port_->IsBegun()) {
    return kDeviceCommunicationStatusOpenFailed;  // the daemon is ending
  }
  const byte baud_rate = p_device_access_rs485->baud_rate;
  switch (p_port_->Cache().CheckVlmOpen(channel_, false, baud_rate)) {
    case Cache::kStatusOpened:
      return kDeviceCommunicationStatusNoError;
    case Cache::kStatusError:
      return kDeviceCommunicationChannelSettingError;
    case Cache::kStatusNeedReopen:
      LoggerLog::Debug(kLogTag, LogText("vlm_485_cls C<", channel_, "> for Reopen"));
      p_port_->Close();
      break;
    case Cache::kStatusClosed:
      break;
  }
  const bool is_open = TryRepeatedly([&] {
    const bool is_failed = p_port_->Open(false, baud_rate) != 0;
    LoggerLog::Debug(kLogTag, LogText("vlm_485_op[", is_failed, "] <C", channel_, ">, false, [",
                                      baud_rate, "]"));
    return !is_failed;
  });
  if (!is_open) {
    p_port_->Close();
    return kDeviceCommunicationStatusOpenFailed;
  }
  p_port_->Cache().SetVlmOpen(Rs485LibcacheData(channel_, false, baud_rate, true));
  return kDeviceCommunicationStatusNoError;
}

void RS485AccessRequest::SetPortParameters() {
  for (const SetPortParams& entry : p_device_access_rs485->port_params) {
    if (!IsUsed(channel_, entry.address)) {
      continue;
    }
    LoggerLog::Debug(
        kLogTag, Poco::format("vlm_485_setPtParam <C%d:%02d>", channel_, int{entry.address}) +
                     Poco::format("[%d][%d][%d][%d][%d]", int{entry.databits}, int{entry.timeout},
                                  int{entry.delimitertype}, int{entry.byte_after_delimiter},
                                  int{entry.com_wait_time}));
    p_port_->SetPortParameters(entry);
  }
}

int RS485AccessRequest::PutFrames(unsigned int& flags) {
  for (SendData& entry : p_device_access_rs485->send_data) {
    if (!IsUsed(channel_, entry.address)) {
      continue;
    }
    if (!PutFrame(entry)) {
      LoggerLog::Debug(kLogTag, "vlm_485_putOStm fail.");
      p_port_->Close();
      return kDeviceCommunicationStatusPutOutputStreamFailed;
    }
    flags |= 1u << (entry.address - 1);
  }
  return kDeviceCommunicationStatusNoError;
}

bool RS485AccessRequest::PutFrame(SendData& entry) {
  const int address = entry.address;
  const int length = FrameLengthOf(entry);
  LoggerLog::Verbose(kLogTag, Poco::format("vlm_485_putOStm start <C%d:%02d> [%s]", channel_,
                                           address, std::to_string(*FrameOf(entry))));
  if (length > kMaxSendFrameLength) {
    LoggerLog::Warn(
        kLogTag, Poco::format("Snd dat len err. <C%d:%02d> len:[%d]", channel_, address, length));
    return false;
  }
  if (IsBroadcast(entry)) {
    LoggerLog::Debug(kLogTag, Poco::format("vlm_485_putOStm - snd dat to bc addr <C%d:%02d>",
                                           channel_, address));
  }
  xfer_data frame{static_cast<std::uint16_t>(length), entry.send_data + kSendFrameOffset};
  return TryRepeatedly([&] {
    const bool is_taken = p_port_->PutOutputStream(entry.address, frame) != 0;
    LoggerLog::Verbose(kLogTag, Poco::format("vlm_485_putOStm [%d] <C%d:%02d>", is_taken ? 1 : 0,
                                             channel_, address));
    LoggerLog::Debug(kLogTag, LogText("vlm_485_putOStm [", HexText(frame.xfr_da, length), "]"));
    return is_taken;
  });
}

int RS485AccessRequest::RunCycle(unsigned int flags) {
  const bool are_flags_set = TryRepeatedly([&] {
    const bool is_set = p_port_->SetComFlags(flags) != 0;
    LoggerLog::Debug(kLogTag,
                     LogText("vlm_485_setCFlg [", is_set, "] <C", channel_, "> [", flags, "]"));
    return is_set;
  });
  if (!are_flags_set) {
    LoggerLog::Debug(kLogTag, "vlm_485_setCFlg fail.");
    p_port_->Close();
    return kDeviceCommunicationStatusSetComFlgsFailed;
  }
  LoggerLog::Verbose(kLogTag, "vlm_485_stCom start");
  const bool is_started = TryRepeatedly([&] {
    const auto begin = std::chrono::steady_clock::now();
    const bool is_over = p_port_->StartCom() != 0;
    if (is_over) {
      HealthKeeper::ReportCycle(health_channel_, begin);
    }
    LoggerLog::Debug(kLogTag, LogText("vlm_485_stCom [", is_over, "]"));
    return is_over;
  });
  if (!is_started) {
    return StartFailed();
  }
  p_port_->Cache().SetVlmStartComFailedClear(channel_);
  return kDeviceCommunicationStatusNoError;
}

int RS485AccessRequest::StartFailed() {
  Cache& cache = p_port_->Cache();
  cache.SetVlmStartComFailed(channel_);
  if (cache.CheckVlmRs485Close(channel_)) {
    LoggerLog::Debug(kLogTag, "vlm_485_stCom fail. vlm_485_stCom close.");
    cache.SetVlmStartComFailedClear(channel_);
    p_port_->Close();
  } else {
    LoggerLog::Debug(kLogTag, "vlm_485_stCom fail. vlm_485_stCom not close.");
  }
  return kDeviceCommunicationStatusStartComFailed;
}

std::shared_ptr<CommunicationResult> RS485AccessRequest::CollectAnswers() {
  auto record = CommunicationResult::AllocateRecord(kRequestDataTypeRS485);
  const receive_data_full* stream = p_port_->GetReceiveStream();
  if (stream == nullptr) {
    LoggerLog::Debug(kLogTag, "vlm_485_getRcvStm return NULL");
    record->receive_data.status = kDeviceCommunicationStatusOtherError;
    ReportFailure(kDeviceCommunicationStatusOtherError);
  } else {
    unsigned int reported = 0;  // bit address - 1: asked once, whatever entries name it
    for (const SendData& entry : p_device_access_rs485->send_data) {
      if (entry.address == 0 || entry.address > kMaxDeviceCountAtChannel) {
        continue;
      }
      const int index = entry.address - 1;
      DeviceReceiveData& slot = record->receive_data.receive_data[index];
      slot.length = 0;  // an entry before may have had the same address
      const HealthEnd end = CollectAnswer(stream->rcv_dt[index], entry, slot);
      if ((reported & 1u << index) == 0) {
        ReportHealth(entry, end);
      }
      reported |= 1u << index;
    }
  }
  return CommunicationResult::Wrap(std::move(record));
}

/// Puts a device's answer, null: none, into its slot.
HealthEnd RS485AccessRequest::CollectAnswer(const receive_data* answer, const SendData& entry,
                                            DeviceReceiveData& slot) {
  if (answer == nullptr) {
    return {IsBroadcast(entry) ? TAMSEL_CAUSE_SENT : TAMSEL_CAUSE_NO_ANSWER};
  }
  const int length = answer->rcv_da_len;
  const std::string values = Poco::format("<C%d:%02d> len:[%d] status:[%d]", channel_,
                                          int{entry.address}, length, int{answer->rcv_status});
  if (length > kDeviceCommunicationReceiveDataBuffSize) {
    LoggerLog::Warn(kLogTag, LogText("Rcv dat size too large. ", values));
    return {TAMSEL_CAUSE_TOO_LONG, length};
  }
  slot.status = answer->rcv_status;
  LoggerLog::Debug(kLogTag, LogText("Rcv dat ", values));
  if (IsBroadcast(entry)) {
    LoggerLog::Debug(kLogTag, "Rcv dat [-]: Rcv dat size is 0 for bc comm.");
    return slot.status == VLM_RS485_ANSWERED ? HealthEnd{TAMSEL_CAUSE_SENT} : EndOf(slot.status);
  }
  if (length > 0) {
    slot.length = static_cast<std::int16_t>(length);
    std::memcpy(slot.data, answer->rcv_da, static_cast<std::size_t>(length));
  }
  LoggerLog::Debug(kLogTag, LogText("Rcv dat [", HexText(slot.data, length), "]"));
  return slot.status == VLM_RS485_ANSWERED && length > 0 ? EndOfRtuAnswer(entry, slot.data, length)
                                                         : EndOf(slot.status);
}

void RS485AccessRequest::ReportHealth(const SendData& entry, const HealthEnd& end) const {
  const auto* const params = std::find_if(
      std::begin(p_device_access_rs485->port_params), std::end(p_device_access_rs485->port_params),
      [&](const SetPortParams& line) { return line.address == entry.address; });
  const bool has_line = params != std::end(p_device_access_rs485->port_params);
  HealthKeeper::ReportExchange({health_channel_,
                                kRequestDataTypeRS485,
                                entry.address,
                                {},
                                p_device_access_rs485->baud_rate,
                                has_line ? params->databits : 0u},
                               end);
}

/// How the exchanges ended of a request that as a whole ended with `status`.
HealthEnd RS485AccessRequest::FailureEnd(int status) const {
  const int error = p_port_->LibraryError();
  switch (status) {
    case kDeviceCommunicationStatusOpenFailed:
      return IsGone(error) && p_port_->Cache().WasOpened(channel_)
                 ? HealthEnd{TAMSEL_CAUSE_PORT_GONE}
                 : HealthEnd{TAMSEL_CAUSE_PORT_NOT_OPENED, error};
    case kDeviceCommunicationStatusStartComFailed:
      return IsGone(error)      ? HealthEnd{TAMSEL_CAUSE_PORT_GONE}
             : IsRefused(error) ? HealthEnd{TAMSEL_CAUSE_PORT_NOT_OPENED, error}
                                : HealthEnd{TAMSEL_CAUSE_NOT_STARTED, status};
    default:
      return {TAMSEL_CAUSE_NOT_STARTED, status};
  }
}

/// No device was asked: the request as a whole ended with `status`.
void RS485AccessRequest::ReportFailure(int status) const {
  if (!p_port_->IsBegun() || p_port_->IsReleased()) {
    return;  // the daemon is ending; that says nothing about the field
  }
  const HealthEnd end = FailureEnd(status);
  for (const SendData& entry : p_device_access_rs485->send_data) {
    const int length = FrameLengthOf(entry);
    if (entry.address == 0) {
      continue;
    }
    if (status == kDeviceCommunicationStatusPutOutputStreamFailed &&
        (length == 0 || length > MAX_XFER_DATA_LENGTH)) {
      ReportHealth(entry, {TAMSEL_CAUSE_BAD_FRAME_LENGTH, length});
    } else {
      ReportHealth(entry, end);
    }
  }
}

/// Makes attempts until one succeeds; a pause follows each that failed, the last one too.
template <typename Attempt>
bool RS485AccessRequest::TryRepeatedly(Attempt attempt) {
  for (int i = 0; i < attempts_ && !p_port_->IsReleased(); ++i) {
    if (attempt()) {
      return true;
    }
    std::this_thread::sleep_for(retry_interval_);
  }
  return false;
}

}  // namespace tmsc
