#include "access_worker_request/rs485_access_request.h"

#include <Poco/Format.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>

#include "log/logger_log.h"
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

int FrameLength(const SendData& entry) {
  return entry.send_data[0] | entry.send_data[1] << 8;
}

const byte* Frame(const SendData& entry) {
  return entry.send_data + 2;
}

bool IsBroadcast(const SendData& entry) {
  return *Frame(entry) == 0;
}

std::string FlagText(bool flag) {
  return flag ? "1" : "0";
}

std::string HexText(const byte* bytes, int count) {
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
  std::shared_ptr<CommunicationResult> result;
  try {
    result = Exchange();
  } catch (const std::exception& failure) {
    // The waiting caller gets an empty result, closes its connection and frees the channel.
    LoggerLog::Error(kLogTag, std::string("request exception:") + failure.what());
  }
  promise_->set_value(std::move(result));
}

std::shared_ptr<CommunicationResult> RS485AccessRequest::Exchange() {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  const int retries =
      std::clamp(settings->GetMWApiRetryCount(), 0, std::numeric_limits<int>::max() - 1);
  attempts_ = retries + 1;
  retry_interval_ms_ = std::max(settings->GetMWApiRetryInterval(), 0);
  Poco::Thread::sleep(settings->GetRs485StartWait());
  channel_ = p_device_access_rs485->channel;
  LoggerLog::Verbose(kLogTag, "vlm_485_x Exec <C" + std::to_string(channel_) +
                                  "> 2: TID:" + std::to_string(Poco::Thread::currentTid()));
  int status = kDeviceCommunicationStatusOpenFailed;
  cache_ = Cache::Share();
  const auto port_lock = cache_ ? cache_->LockPort(channel_) : std::unique_lock<std::mutex>();
  if (cache_ && cache_->BeginUse()) {
    // Ends the use on every path: the end of the daemon waits for it.
    const std::unique_ptr<Cache, void (*)(Cache*)> use(cache_.get(),
                                                       [](Cache* cache) { cache->EndUse(); });
    status = UsePort();
    if (status == kDeviceCommunicationStatusNoError) {
      return CollectAnswers();
    }
  }
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
  cache_->CallLibrary(channel_, 0,
                      [&] { return vlm_rs485_addEventListener(channel_, Rs485ListenerProc); });
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
  cache_->CallLibrary(channel_, 0, [&] { return vlm_rs485_removeEventListener(channel_); });
  LoggerLog::Verbose(kLogTag, "vlm_485_rmListn <C" + std::to_string(channel_) + ">");
  return kDeviceCommunicationStatusNoError;
}

int RS485AccessRequest::Open() {
  const byte baud_rate = p_device_access_rs485->baud_rate;
  switch (cache_->CheckVlmOpen(channel_, false, baud_rate)) {
    case Cache::kStatusOpened:
      return kDeviceCommunicationStatusNoError;
    case Cache::kStatusError:
      return kDeviceCommunicationChannelSettingError;
    case Cache::kStatusNeedReopen:
      LoggerLog::Debug(kLogTag, "vlm_485_cls C<" + std::to_string(channel_) + "> for Reopen");
      Close();
      break;
    case Cache::kStatusClosed:
      break;
  }
  const bool is_open = TryRepeatedly([&] {
    const bool is_failed = cache_->CallLibrary(channel_, -1, [&] {
      return vlm_rs485_open(channel_, false, baud_rate);
    }) != 0;
    LoggerLog::Debug(kLogTag, "vlm_485_op[" + FlagText(is_failed) + "] <C" +
                                  std::to_string(channel_) + ">, false, [" +
                                  std::to_string(baud_rate) + "]");
    return !is_failed;
  });
  if (!is_open) {
    Close();
    return kDeviceCommunicationStatusOpenFailed;
  }
  cache_->SetVlmOpen(Rs485LibcacheData(channel_, false, baud_rate, true));
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
    cache_->CallLibrary(channel_, 0, [&] {
      return vlm_rs485_setPortParams(channel_, entry.address, entry.databits, entry.timeout,
                                     entry.delimitertype, entry.byte_after_delimiter,
                                     entry.com_wait_time);
    });
  }
}

int RS485AccessRequest::PutFrames(unsigned int& flags) {
  for (SendData& entry : p_device_access_rs485->send_data) {
    if (!IsUsed(channel_, entry.address)) {
      continue;
    }
    if (!PutFrame(entry)) {
      LoggerLog::Debug(kLogTag, "vlm_485_putOStm fail.");
      Close();
      return kDeviceCommunicationStatusPutOutputStreamFailed;
    }
    flags |= 1u << (entry.address - 1);
  }
  return kDeviceCommunicationStatusNoError;
}

bool RS485AccessRequest::PutFrame(SendData& entry) {
  const int address = entry.address;
  const int length = FrameLength(entry);
  LoggerLog::Verbose(kLogTag, Poco::format("vlm_485_putOStm start <C%d:%02d> [%s]", channel_,
                                           address, std::to_string(*Frame(entry))));
  if (length > kMaxSendFrameLength) {
    LoggerLog::Warn(
        kLogTag, Poco::format("Snd dat len err. <C%d:%02d> len:[%d]", channel_, address, length));
    return false;
  }
  if (IsBroadcast(entry)) {
    LoggerLog::Debug(kLogTag, Poco::format("vlm_485_putOStm - snd dat to bc addr <C%d:%02d>",
                                           channel_, address));
  }
  xfer_data frame{static_cast<std::uint16_t>(length), entry.send_data + 2};
  return TryRepeatedly([&] {
    const bool is_taken = cache_->CallLibrary(channel_, 0, [&] {
      return int{vlm_rs485_putOutputStream(channel_, entry.address, &frame)};
    }) != 0;
    LoggerLog::Verbose(kLogTag, Poco::format("vlm_485_putOStm [%d] <C%d:%02d>", is_taken ? 1 : 0,
                                             channel_, address));
    LoggerLog::Debug(kLogTag, "vlm_485_putOStm [" + HexText(Frame(entry), length) + "]");
    return is_taken;
  });
}

int RS485AccessRequest::RunCycle(unsigned int flags) {
  const bool are_flags_set = TryRepeatedly([&] {
    const bool is_set = cache_->CallLibrary(channel_, 0, [&] {
      return int{vlm_rs485_setComFlags(channel_, flags)};
    }) != 0;
    LoggerLog::Debug(kLogTag, "vlm_485_setCFlg [" + FlagText(is_set) + "] <C" +
                                  std::to_string(channel_) + "> [" + std::to_string(flags) + "]");
    return is_set;
  });
  if (!are_flags_set) {
    LoggerLog::Debug(kLogTag, "vlm_485_setCFlg fail.");
    Close();
    return kDeviceCommunicationStatusSetComFlgsFailed;
  }
  LoggerLog::Verbose(kLogTag, "vlm_485_stCom start");
  const bool is_started = TryRepeatedly([&] {
    const bool is_over = cache_->CallLibraryLong(
                             channel_, 0, [&] { return int{vlm_rs485_startCom(channel_)}; }) != 0;
    LoggerLog::Debug(kLogTag, "vlm_485_stCom [" + FlagText(is_over) + "]");
    return is_over;
  });
  if (!is_started) {
    return StartFailed();
  }
  cache_->SetVlmStartComFailedClear(channel_);
  return kDeviceCommunicationStatusNoError;
}

int RS485AccessRequest::StartFailed() {
  cache_->SetVlmStartComFailed(channel_);
  if (cache_->CheckVlmRs485Close(channel_)) {
    LoggerLog::Debug(kLogTag, "vlm_485_stCom fail. vlm_485_stCom close.");
    cache_->SetVlmStartComFailedClear(channel_);
    Close();
  } else {
    LoggerLog::Debug(kLogTag, "vlm_485_stCom fail. vlm_485_stCom not close.");
  }
  return kDeviceCommunicationStatusStartComFailed;
}

std::shared_ptr<CommunicationResult> RS485AccessRequest::CollectAnswers() {
  auto record = CommunicationResult::AllocateRecord(kRequestDataTypeRS485);
  const receive_data_full* stream =
      cache_->CallLibrary(channel_, static_cast<receive_data_full*>(nullptr),
                          [&] { return vlm_rs485_getReceiveStream(channel_, 0); });
  if (stream == nullptr) {
    LoggerLog::Debug(kLogTag, "vlm_485_getRcvStm return NULL");
    record->receive_data.status = kDeviceCommunicationStatusOtherError;
  } else {
    for (const SendData& entry : p_device_access_rs485->send_data) {
      if (entry.address == 0 || entry.address > kMaxDeviceCountAtChannel) {
        continue;
      }
      const int index = entry.address - 1;
      if (const receive_data* answer = stream->rcv_dt[index]) {
        CollectAnswer(*answer, entry, record->receive_data.receive_data[index]);
      }
    }
  }
  return std::make_shared<CommunicationResult>(record.release());
}

void RS485AccessRequest::CollectAnswer(const receive_data& answer, const SendData& entry,
                                       DeviceReceiveData& slot) {
  const int length = answer.rcv_da_len;
  const std::string values = Poco::format("<C%d:%02d> len:[%d] status:[%d]", channel_,
                                          int{entry.address}, length, int{answer.rcv_status});
  if (length > kDeviceCommunicationReceiveDataBuffSize) {
    LoggerLog::Warn(kLogTag, "Rcv dat size too large. " + values);
    return;
  }
  slot.status = answer.rcv_status;
  LoggerLog::Debug(kLogTag, "Rcv dat " + values);
  if (IsBroadcast(entry)) {
    LoggerLog::Debug(kLogTag, "Rcv dat [-]: Rcv dat size is 0 for bc comm.");
    return;
  }
  if (length > 0) {
    slot.length = static_cast<std::int16_t>(length);
    std::memcpy(slot.data, answer.rcv_da, static_cast<std::size_t>(length));
  }
  LoggerLog::Debug(kLogTag, "Rcv dat [" + HexText(slot.data, length) + "]");
}

/// Makes attempts until one succeeds; a pause follows each that failed, the last one too.
template <typename Attempt>
bool RS485AccessRequest::TryRepeatedly(Attempt attempt) {
  for (int i = 0; i < attempts_ && !cache_->IsReleased(); ++i) {
    if (attempt()) {
      return true;
    }
    Poco::Thread::sleep(retry_interval_ms_);
  }
  return false;
}

void RS485AccessRequest::Close() {
  cache_->SetVlmClose(channel_);
  cache_->CallLibrary(channel_, 0, [&] { return vlm_rs485_close(channel_); });
}

}  // namespace tmsc
