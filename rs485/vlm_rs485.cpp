#include "vlm_rs485.h"

#include <cerrno>

#include "bus_channel.h"

// Records of the 32-bit target, as users of the board's library know them.
static_assert(sizeof(void*) != 4 || (sizeof(xfer_data) == 8 && sizeof(receive_data) == 8 &&
                                     sizeof(receive_data_full) == 124));

namespace {

using rs485::BusChannel;

/// Null for a channel that does not exist.
BusChannel* Channel(int channel) {
  // Never destroyed: a cycle may still run on another thread while the process ends.
  static BusChannel* const channels[MAX_CHANNEL] = {new BusChannel(1), new BusChannel(2),
                                                    new BusChannel(3)};
  return channel >= 1 && channel <= MAX_CHANNEL ? channels[channel - 1] : nullptr;
}

/// Runs an operation of a channel; `refusal`, with errno set, when there is no such channel.
template <typename Result, typename Operation>
Result OnChannel(int channel, Result refusal, Operation operation) {
  BusChannel* bus = Channel(channel);
  if (bus == nullptr) {
    errno = EINVAL;
    return refusal;
  }
  return static_cast<Result>(operation(*bus));
}

constexpr unsigned char kRefused = 0;

}  // namespace

#define VLM_RS485_EXPORT __attribute__((visibility("default")))

VLM_RS485_EXPORT int vlm_rs485_open(int channel, bool sniffer, unsigned char baud_rate) {
  if (sniffer) {
    errno = ENOTSUP;
    return -1;
  }
  return OnChannel(channel, -1, [&](BusChannel& bus) { return bus.Open(baud_rate); });
}

VLM_RS485_EXPORT int vlm_rs485_close(int channel) {
  return OnChannel(channel, -1, [](BusChannel& bus) {
    bus.Close();
    return 0;
  });
}

VLM_RS485_EXPORT int vlm_rs485_setPortParams(int channel, unsigned char address,
                                             unsigned char databits, short timeout,
                                             unsigned char delimitertype,
                                             unsigned char byte_after_delimiter,
                                             unsigned char com_wait_time) {
  return OnChannel(channel, -1, [&](BusChannel& bus) {
    return bus.SetParameters(address, databits, timeout, delimitertype, byte_after_delimiter,
                             com_wait_time);
  });
}

VLM_RS485_EXPORT int vlm_rs485_addEventListener(int channel, void (*listener)()) {
  return OnChannel(channel, -1, [&](BusChannel& bus) {
    bus.SetListener(listener);
    return 0;
  });
}

VLM_RS485_EXPORT int vlm_rs485_removeEventListener(int channel) {
  return vlm_rs485_addEventListener(channel, nullptr);
}

VLM_RS485_EXPORT unsigned char vlm_rs485_putOutputStream(int channel, unsigned char address,
                                                         xfer_data* data) {
  return OnChannel(channel, kRefused, [&](BusChannel& bus) {
    return data != nullptr && bus.PutFrame(address, *data);
  });
}

VLM_RS485_EXPORT unsigned char vlm_rs485_setComFlags(int channel, unsigned int flags) {
  return OnChannel(channel, kRefused, [&](BusChannel& bus) { return bus.SetFlags(flags); });
}

VLM_RS485_EXPORT unsigned char vlm_rs485_startCom(int channel) {
  return OnChannel(channel, kRefused, [](BusChannel& bus) { return bus.RunCycle(); });
}

VLM_RS485_EXPORT receive_data_full* vlm_rs485_getReceiveStream(int channel, int /*reserved*/) {
  return OnChannel(channel, static_cast<receive_data_full*>(nullptr),
                   [](BusChannel& bus) { return bus.Answers(); });
}
