#include "status_text.h"

#include "vlm_rs485.h"

namespace tmsc {

std::string StatusText(int request_status) {
  switch (request_status) {
    case kDeviceCommunicationStatusNoError:
      return "ok";
    case kDeviceCommunicationStatusReadError:
      return "the daemon did not receive the whole payload";
    case kDeviceCommunicationStatusStartComFailed:
      return "the serial library did not start the communication cycle";
    case kDeviceCommunicationStatusSetComFlgsFailed:
      return "the serial library did not take the device flags";
    case kDeviceCommunicationStatusPutOutputStreamFailed:
      return "the serial library did not take a frame";
    case kDeviceCommunicationStatusOpenFailed:
      return "the RS485 port could not be opened";
    case kDeviceCommunicationChannelSettingError:
      return "the channel in the payload is not 1 to " + std::to_string(kMaxChannel);
    case kDeviceCommunicationChannelBusyError:
      return "the channel is busy";
    case kDeviceCommunicationStatusOtherError:
      return "the serial library delivered no answers";
    default:
      return "unknown status " + std::to_string(request_status);
  }
}

std::string TcpDeviceStatusText(byte device_status) {
  static constexpr struct {
    int bit;
    const char* text;
  } kFailures[] = {
      {kTCPIPUnitStatusConnectError, "connect failed"},
      {kTCPIPUnitStatusException, "internal exception"},
      {kTCPIPUnitStatusSendReceiveError, "send or receive failed"},
  };
  if (device_status == 0) {
    return "ok";
  }
  std::string text;
  int unnamed = device_status;
  for (const auto& failure : kFailures) {
    if ((device_status & failure.bit) != 0) {
      text += (text.empty() ? "" : " + ") + std::string(failure.text);
      unnamed &= ~failure.bit;
    }
  }
  if (unnamed != 0) {
    text += (text.empty() ? "" : " + ") + ("unknown status " + std::to_string(unnamed));
  }
  return text;
}

std::string Rs485DeviceStatusText(byte device_status) {
  switch (device_status) {
    case VLM_RS485_ANSWERED:
      return "answered";
    case VLM_RS485_NO_ANSWER:
      return "no answer";
    case VLM_RS485_LINE_ERROR:
      return "line error";
    case VLM_RS485_TOO_LONG:
      return "answer too long";
    case VLM_RS485_PORT_GONE:
      return "port gone";
    case VLM_RS485_NOT_ITS_ANSWER:
      return "not its answer: another device or noise";
    default:
      return "unknown status " + std::to_string(device_status);
  }
}

}  // namespace tmsc
