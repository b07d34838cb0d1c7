#include "access_worker_request/rs485_port_use.h"

#include <cerrno>
#include <utility>

namespace tmsc {

Rs485PortUse::Rs485PortUse(std::shared_ptr<Rs485AccessRequestLibcache> cache, int channel)
    : cache_(std::move(cache)), channel_(channel) {
  if (!cache_ || channel < 1 || channel > kMaxChannel) {
    return;
  }
  port_lock_ = std::unique_lock<std::mutex>(cache_->port_mutexes_[channel - 1]);
  const std::lock_guard<std::mutex> lock(cache_->mutex_);
  is_begun_ = cache_->stage_ == Stage::kServing;
  cache_->users_ += is_begun_ ? 1 : 0;
}

Rs485PortUse::~Rs485PortUse() {
  if (is_begun_) {
    const std::lock_guard<std::mutex> lock(cache_->mutex_);
    if (--cache_->users_ == 0) {
      cache_->users_gone_.notify_all();
    }
  }
}

bool Rs485PortUse::IsReleased() const {
  return cache_->stage_ == Stage::kReleased;
}

template <typename Result, typename Call>
Result Rs485PortUse::CallLibrary(Result refused, Call call) {
  const std::lock_guard<std::mutex> lock(cache_->call_mutexes_[channel_ - 1]);
  return IsReleased() ? refused : call();
}

template <typename Call>
auto Rs485PortUse::NoteError(Call call) {
  errno = 0;
  const auto result = call();
  library_error_ = errno;
  return result;
}

int Rs485PortUse::Open(bool sniffer, byte baud_rate) {
  return CallLibrary(
      -1, [&] { return NoteError([&] { return vlm_rs485_open(channel_, sniffer, baud_rate); }); });
}

void Rs485PortUse::Close() {
  CallLibrary(-1, [&] {
    cache_->SetVlmClose(channel_);  // together: the end of the daemon closes what is noted as open
    return vlm_rs485_close(channel_);
  });
}

int Rs485PortUse::SetPortParameters(const SetPortParams& params) {
  return CallLibrary(-1, [&] {
    return vlm_rs485_setPortParams(channel_, params.address, params.databits, params.timeout,
                                   params.delimitertype, params.byte_after_delimiter,
                                   params.com_wait_time);
  });
}

int Rs485PortUse::AddEventListener(void (*listener)()) {
  return CallLibrary(-1, [&] { return vlm_rs485_addEventListener(channel_, listener); });
}

int Rs485PortUse::RemoveEventListener() {
  return CallLibrary(-1, [&] { return vlm_rs485_removeEventListener(channel_); });
}

byte Rs485PortUse::PutOutputStream(byte address, xfer_data& data) {
  return CallLibrary(byte{0}, [&] { return vlm_rs485_putOutputStream(channel_, address, &data); });
}

byte Rs485PortUse::SetComFlags(unsigned int flags) {
  return CallLibrary(byte{0}, [&] { return vlm_rs485_setComFlags(channel_, flags); });
}

byte Rs485PortUse::StartCom() {
  return IsReleased() ? byte{0} : NoteError([&] { return vlm_rs485_startCom(channel_); });
}

receive_data_full* Rs485PortUse::GetReceiveStream() {
  receive_data_full* const none = nullptr;
  return CallLibrary(none, [&] { return vlm_rs485_getReceiveStream(channel_, 0); });
}

}  // namespace tmsc
