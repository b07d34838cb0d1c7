#include "status_text.h"

#include <algorithm>
#include <cstdio>

#include "vlm_rs485.h"

namespace tmsc {
namespace {

struct Words {
  int value;
  const char* text;
};

constexpr Words kRequestStatuses[] = {
    {TAMSEL_STATUS_OK, "ok"},
    {TAMSEL_STATUS_READ_ERROR, "the daemon did not receive the whole payload"},
    {TAMSEL_STATUS_NOT_STARTED, "the serial library did not start the communication cycle"},
    {TAMSEL_STATUS_FLAGS_NOT_TAKEN, "the serial library did not take the device flags"},
    {TAMSEL_STATUS_FRAME_NOT_TAKEN, "the serial library did not take a frame"},
    {TAMSEL_STATUS_NOT_OPENED, "the RS485 port could not be opened"},
    {TAMSEL_STATUS_BAD_CHANNEL, "the channel in the payload is not 1 to 3"},
    {TAMSEL_STATUS_BUSY, "the channel is busy"},
    {TAMSEL_STATUS_NO_ANSWERS, "the serial library delivered no answers"},
};
static_assert(TAMSEL_MAX_CHANNEL == 3, "stands in a text");

constexpr Words kSerialStatuses[] = {
    {VLM_RS485_ANSWERED, "answered"},
    {VLM_RS485_NO_ANSWER, "no answer"},
    {VLM_RS485_LINE_ERROR, "line error"},
    {VLM_RS485_TOO_LONG, "answer too long"},
    {VLM_RS485_PORT_GONE, "port gone"},
    {VLM_RS485_NOT_ITS_ANSWER, "not its answer: another device or noise"},
};

constexpr Words kTcpFailures[] = {
    {TAMSEL_DEVICE_CONNECT_FAILED, "connect failed"},
    {TAMSEL_DEVICE_EXCEPTION, "internal exception"},
    {TAMSEL_DEVICE_SEND_RECEIVE_FAILED, "send or receive failed"},
};

constexpr Words kResults[] = {
    {TAMSEL_OK, "ok"},
    {TAMSEL_NOT_REACHABLE, "no daemon can be reached"},
    {TAMSEL_TIMED_OUT, "the daemon did not answer in time"},
    {TAMSEL_CLOSED, "the daemon closed the connection without an answer"},
    {TAMSEL_SOCKET_FAILED, "the local socket failed"},
    {TAMSEL_BAD_REQUEST, "size and type of the request do not go together"},
    {TAMSEL_BAD_ADDRESS, "the device address is not 1 to 31"},
    {TAMSEL_ADDRESS_TAKEN, "the device address is in the request already"},
    {TAMSEL_BAD_FRAME_LENGTH, "the frame is not 1 to 126 bytes long"},
    {TAMSEL_BAD_IP_ADDRESS, "the text is not an IPv4 address"},
    {TAMSEL_BAD_PORT, "the port is not 1 to 65535"},
    {TAMSEL_BAD_TIMEOUT, "the time-out is not 0 to 32767 ms"},
    {TAMSEL_BAD_VALUE, "the number or text stands for nothing"},
    {TAMSEL_MODBUS_EXCEPTION, "the device answered with a Modbus exception"},
    {TAMSEL_WRONG_CHECK_SUM, "the check sum of the answer is wrong"},
    {TAMSEL_OTHER_DEVICE, "the answer is another device's"},
    {TAMSEL_WRONG_ANSWER, "the answer does not fit the frame"},
    {TAMSEL_HEALTH_NOT_READ, "the health file cannot be read"},
    {TAMSEL_HEALTH_OTHER_FILE, "the file is no health file"},
    {TAMSEL_HEALTH_OTHER_LAYOUT, "the health file has a layout of another version"},
    {TAMSEL_HEALTH_NEVER, "the daemon has had no exchange with the device"},
    {TAMSEL_HEALTH_DAMAGED, "the health file holds no whole record of the device"},
    {TAMSEL_NO_MEMORY, "there is no memory"},
};

template <std::size_t count>
const char* Find(const Words (&table)[count], int value) {
  for (const Words& words : table) {
    if (words.value == value) {
      return words.text;
    }
  }
  return nullptr;
}

/// Text of at most `size` bytes, put together from pieces with " + " between them.
class Pieces {
 public:
  Pieces(char* text, std::size_t size) : text_(text), size_(size) {}

  void Add(const char* piece) {
    const std::size_t at = std::min(length_, size_);
    const char* separator = length_ == 0 ? "" : " + ";
    length_ +=
        static_cast<std::size_t>(std::snprintf(text_ + at, size_ - at, "%s%s", separator, piece));
  }
  void AddUnknown(int status) {
    char piece[kNumberSize];
    std::snprintf(piece, sizeof(piece), "unknown status %d", status);
    Add(piece);
  }

 private:
  static constexpr std::size_t kNumberSize = 32;
  char* text_;
  std::size_t size_;
  std::size_t length_ = 0;
};

template <std::size_t count>
const char* Write(const Words (&table)[count], int status, char* text, std::size_t size) {
  Pieces pieces(text, size);
  if (const char* known = Find(table, status)) {
    pieces.Add(known);
  } else {
    pieces.AddUnknown(status);
  }
  return text;
}

const char* WriteTcpFailures(int status, char* text, std::size_t size) {
  Pieces pieces(text, size);
  int unnamed = status;
  for (const Words& failure : kTcpFailures) {
    if ((status & failure.value) != 0) {
      pieces.Add(failure.text);
      unnamed &= ~failure.value;
    }
  }
  if (status == 0) {
    pieces.Add("ok");
  } else if (unnamed != 0) {
    pieces.AddUnknown(unnamed);
  }
  return text;
}

// Longer than three failures and an unnamed rest.
constexpr std::size_t kTextSize = 128;

std::string DeviceStatusText(int transport, byte device_status) {
  char text[kTextSize];
  return tamsel_device_status_text(transport, device_status, text, sizeof(text));
}

}  // namespace

std::string StatusText(int request_status) {
  char text[kTextSize];
  return tamsel_status_text(request_status, text, sizeof(text));
}

std::string TcpDeviceStatusText(byte device_status) {
  return DeviceStatusText(TAMSEL_TCPIP, device_status);
}

std::string Rs485DeviceStatusText(byte device_status) {
  return DeviceStatusText(TAMSEL_RS485, device_status);
}

}  // namespace tmsc

const char* tamsel_result_text(int result) {
  const char* text = tmsc::Find(tmsc::kResults, result);
  return text != nullptr ? text : "unknown result";
}

const char* tamsel_status_text(int request_status, char* text, size_t size) {
  return tmsc::Write(tmsc::kRequestStatuses, request_status, text, size);
}

const char* tamsel_device_status_text(int transport, int device_status, char* text, size_t size) {
  return transport == TAMSEL_TCPIP ? tmsc::WriteTcpFailures(device_status, text, size)
                                   : tmsc::Write(tmsc::kSerialStatuses, device_status, text, size);
}
