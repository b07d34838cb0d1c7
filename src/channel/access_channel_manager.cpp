#include "channel/access_channel_manager.h"

#include <Poco/Format.h>
#include <Poco/Mutex.h>
#include <Poco/ScopedLock.h>

#include "log/logger_log.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("AChMgr");

using Lock = Poco::ScopedLock<Poco::Mutex>;
Poco::Mutex& mutex_ = *new Poco::Mutex;  // never destroyed: workers run until the process ends

std::string FlagText(bool flag) {
  return flag ? "1" : "0";
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
  const std::string name = "SetUsedState";
  const std::string key = std::to_string(channel_index);
  LoggerLog::Verbose(kLogTag, Poco::format("%s ch:[%s] used:[%s]", name, key, FlagText(use)));
  const Lock lock(mutex_);
  bool& flag = access_channel_used_map_[key];
  LoggerLog::Debug(kLogTag, Poco::format("%s ch:[%s] used:[%s]->[%s]", name, key, FlagText(flag),
                                         FlagText(use)));
  flag = use;
}

bool AccessChannelManager::GetUsedState(int channel_index) {
  const std::string key = std::to_string(channel_index);
  const Lock lock(mutex_);
  const auto found = access_channel_used_map_.find(key);
  const bool is_used = found != access_channel_used_map_.end() && found->second;
  LoggerLog::Debug(kLogTag, Poco::format("%s ch:[%s] used:[%s]", std::string("GetUsedState"), key,
                                         FlagText(is_used)));
  return is_used;
}

}  // namespace tmsc
