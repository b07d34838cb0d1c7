#include "channel/access_channel_manager.h"

#include <Poco/Mutex.h>
#include <Poco/ScopedLock.h>

#include <new>

#include "log/log_text.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("AChMgr");

using Lock = Poco::ScopedLock<Poco::Mutex>;
Poco::Mutex& mutex_ = *new Poco::Mutex;  // never destroyed: workers run until the process ends

/// Logs a text, unless there is no memory for it: a flag changes all the same.
template <typename MakeText>
void LogUsedState(MakeText make_text, void (*log)(const std::string&, const std::string&)) {
  try {
    log(kLogTag, make_text());
  } catch (const std::bad_alloc&) {
  }
}

template <typename Front>
std::shared_ptr<Front> GetOrCreate(std::map<std::string, std::shared_ptr<Front>>& fronts,
                                   int channel_index) {
  const Lock lock(mutex_);
  std::shared_ptr<Front>& front = fronts[std::to_string(channel_index)];
  if (!front) {
    front = std::make_shared<Front>(channel_index);
  }
  return front;
}

}  // namespace

AccessChannelManager::AccessChannelManager()
    : access_channel_rs485_map_(
          std::make_unique<std::map<std::string, std::shared_ptr<tmsc::AccessChannelRS485>>>()),
      access_channel_tcpip_map_(
          std::make_unique<std::map<std::string, std::shared_ptr<tmsc::AccessChannelTCPIP>>>()) {}

AccessChannelManager::~AccessChannelManager() = default;

std::shared_ptr<AccessChannelRS485> AccessChannelManager::AccessChannelRS485(int channel_index) {
  return GetOrCreate(*access_channel_rs485_map_, channel_index);
}

std::shared_ptr<AccessChannelTCPIP> AccessChannelManager::AccessChannelTCPIP(int channel_index) {
  return GetOrCreate(*access_channel_tcpip_map_, channel_index);
}

void AccessChannelManager::SetUsedState(int channel_index, bool use) {
  LogUsedState([&] { return LogText("SetUsedState ch:[", channel_index, "] used:[", use, "]"); },
               LoggerLog::Verbose);
  const Lock lock(mutex_);
  bool& is_used = access_channel_used_map_[std::to_string(channel_index)];
  LogUsedState(
      [&] {
        return LogText("SetUsedState ch:[", channel_index, "] used:[", is_used, "]->[", use, "]");
      },
      LoggerLog::Debug);
  is_used = use;
}

bool AccessChannelManager::GetUsedState(int channel_index) {
  const auto hand_back = LockHandBack(channel_index);
  const Lock lock(mutex_);
  const auto found = access_channel_used_map_.find(std::to_string(channel_index));
  const bool is_used = found != access_channel_used_map_.end() && found->second;
  LoggerLog::Debug(kLogTag, LogText("GetUsedState ch:[", channel_index, "] used:[", is_used, "]"));
  return is_used;
}

std::unique_lock<std::mutex> AccessChannelManager::LockHandBack(int channel_index) {
  return channel_index >= 1 && channel_index <= kMaxChannel
             ? std::unique_lock<std::mutex>(hand_back_mutexes_[channel_index - 1])
             : std::unique_lock<std::mutex>();
}

}  // namespace tmsc
