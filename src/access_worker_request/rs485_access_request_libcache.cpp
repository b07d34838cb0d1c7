#include "access_worker_request/rs485_access_request_libcache.h"

#include <chrono>

#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "vlm_rs485.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("485ARqLib");
constexpr std::chrono::seconds kUsersWait{2};

std::mutex instance_mutex;
// Guarded by instance_mutex. Never destroyed: a request may share it while the process ends.
std::shared_ptr<Rs485AccessRequestLibcache>& p_instance_ =
    *new std::shared_ptr<Rs485AccessRequestLibcache>;

int CloseCount() {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  return settings != nullptr ? settings->GetTamselComStartComFailedCloseCount()
                             : kMaxStartComFailedCloseCount;
}

}  // namespace

void Rs485AccessRequestLibcache::Create() {
  const std::lock_guard<std::mutex> lock(instance_mutex);
  if (!p_instance_) {
    p_instance_ = std::make_shared<Rs485AccessRequestLibcache>();
  }
}

Rs485AccessRequestLibcache* Rs485AccessRequestLibcache::GetInstance() {
  return Share().get();
}

std::shared_ptr<Rs485AccessRequestLibcache> Rs485AccessRequestLibcache::Share() {
  const std::lock_guard<std::mutex> lock(instance_mutex);
  return p_instance_;
}

void Rs485AccessRequestLibcache::Destroy() {
  std::shared_ptr<Rs485AccessRequestLibcache> instance;
  {
    const std::lock_guard<std::mutex> lock(instance_mutex);
    instance.swap(p_instance_);
  }
  if (instance) {
    instance->AwaitUsers();
    instance->ReleaseChannel();
  }
}

Rs485AccessRequestLibcache::Rs485AccessRequestLibcache()
    : vlm_start_com_failed_count_max_(CloseCount()) {}

Rs485AccessRequestLibcache::~Rs485AccessRequestLibcache() {
  ReleaseChannel();
}

std::unique_ptr<Rs485LibcacheData>* Rs485AccessRequestLibcache::Slot(int channel) {
  switch (channel) {
    case 1:
      return &channel1_;
    case 2:
      return &channel2_;
    case 3:
      return &channel3_;
    default:
      return nullptr;
  }
}

Rs485AccessRequestLibcache::eLibStatus Rs485AccessRequestLibcache::CheckVlmOpen(int channel,
                                                                                bool sniffer,
                                                                                int baudrate) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto* slot = Slot(channel);
  if (slot == nullptr) {
    return kStatusError;
  }
  const Rs485LibcacheData* data = slot->get();
  if (data == nullptr || !data->GetIsOpen()) {
    return kStatusClosed;
  }
  return data->GetSniffer() == sniffer && data->GetBaudrate() == baudrate ? kStatusOpened
                                                                          : kStatusNeedReopen;
}

bool Rs485AccessRequestLibcache::WasOpened(int channel) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto* slot = Slot(channel);
  return slot != nullptr && *slot;
}

void Rs485AccessRequestLibcache::SetVlmOpen(Rs485LibcacheData channel_data) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (auto* slot = Slot(channel_data.GetChannel())) {
    *slot = std::make_unique<Rs485LibcacheData>(channel_data);
  }
}

void Rs485AccessRequestLibcache::SetVlmClose(int channel) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto* slot = Slot(channel);
  if (slot != nullptr && *slot) {
    (*slot)->SetIsOpen(false);
  }
}

/// Changes the channel's counter and returns the new count; -1, with a line in the log, for a
/// channel that does not exist.
int Rs485AccessRequestLibcache::ChangeStartFailures(const char* operation, int channel,
                                                    int (*change)(int count)) {
  if (channel < 1 || channel > kMaxChannel) {
    LoggerLog::Debug(kLogTag, LogText(operation, " ch error:", channel));
    return -1;
  }
  int count = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    int& counter = vlm_start_com_failed_count_[channel - 1];
    count = counter = change(counter);
  }
  return count;
}

void Rs485AccessRequestLibcache::SetVlmStartComFailed(int channel) {
  const char* const name = "SetVlmStartComFailed";
  const int count = ChangeStartFailures(name, channel, [](int before) { return before + 1; });
  if (count >= 0) {
    LoggerLog::Debug(kLogTag, LogText(name, " ch:", channel, " cnt:", count));
  }
}

void Rs485AccessRequestLibcache::SetVlmStartComFailedClear(int channel) {
  const char* const name = "SetVlmStartComFailedClear";
  const int count = ChangeStartFailures(name, channel, [](int) { return 0; });
  if (count >= 0) {
    LoggerLog::Debug(kLogTag, LogText(name, " ch:", channel, " cnt:", count));
  }
}

bool Rs485AccessRequestLibcache::CheckVlmRs485Close(int channel) {
  const char* const name = "CheckVlmRs485Close";
  const int count = ChangeStartFailures(name, channel, [](int before) { return before; });
  const bool is_to_close = count >= vlm_start_com_failed_count_max_;
  if (count >= 0) {
    LoggerLog::Debug(kLogTag,
                     LogText(name, " ch:", channel, " cnt:", count, " close:", is_to_close));
  }
  return is_to_close;
}

void Rs485AccessRequestLibcache::ReleaseChannel() {
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    const std::lock_guard<std::mutex> call_lock(call_mutexes_[channel - 1]);
    std::unique_ptr<Rs485LibcacheData> data;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      data.swap(*Slot(channel));
    }
    if (data && data->GetIsOpen()) {
      vlm_rs485_close(data->GetChannel());
    }
  }
}

void Rs485AccessRequestLibcache::AwaitUsers() {
  std::unique_lock<std::mutex> lock(mutex_);
  stage_ = Stage::kEnding;
  users_gone_.wait_for(lock, kUsersWait, [this] { return users_ == 0; });
  stage_ = Stage::kReleased;
}

}  // namespace tmsc
