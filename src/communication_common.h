/// The records that the client and the daemon exchange over the Unix-domain socket, the constants
/// that size them and the status codes they carry.
///
/// Every record is packed and sent as its exact bytes. Integers are little-endian. The layout is a
/// contract with existing clients; the assertions below hold it. docs/protocol.md shows it byte by
/// byte.
#ifndef TAMSEL_COMMUNICATION_COMMON_H_
#define TAMSEL_COMMUNICATION_COMMON_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace tmsc {

using byte = unsigned char;

/// Application version, logged once at start. Never destroyed: worker threads may still use it
/// while the process ends.
inline const std::string& kAppVersion = *new std::string("20220725_rkq");

/// Number of field-bus channels; channels are numbered 1 to kMaxChannel.
constexpr int kMaxChannel = 3;
/// Devices on a channel and device entries in a record; addresses are 1 to this number.
constexpr int kMaxDeviceCountAtChannel = 31;

/// Values of DataHeader::type.
constexpr int kRequestDataTypeRS485 = 1;
constexpr int kRequestDataTypeTCPIP = 2;

/// Bytes in SendData::send_data: two length bytes and at most 126 frame bytes.
constexpr int kDeviceCommunicationSendDataBuffSize = 128;
/// Bytes of the length in SendData::send_data; the frame starts behind them.
constexpr int kSendFrameOffset = 2;
/// Bytes in DeviceReceiveData::data.
constexpr int kDeviceCommunicationReceiveDataBuffSize = 438;

/// Longest frame that SendData can hold, in bytes.
constexpr int kMaxSendFrameLength = kDeviceCommunicationSendDataBuffSize - kSendFrameOffset;

/// Status of a whole request, ReceiveData::status.
constexpr int kDeviceCommunicationStatusNoError = 0;
constexpr int kDeviceCommunicationStatusTimeout = 1;    // reserved, never reported
constexpr int kDeviceCommunicationStatusNetError = 2;   // reserved, never reported
constexpr int kDeviceCommunicationStatusSendError = 3;  // reserved, never reported
constexpr int kDeviceCommunicationStatusReadError = 4;
constexpr int kDeviceCommunicationStatusStartComFailed = 5;
constexpr int kDeviceCommunicationStatusSetComFlgsFailed = 6;
constexpr int kDeviceCommunicationStatusPutOutputStreamFailed = 7;
constexpr int kDeviceCommunicationStatusOpenFailed = 8;
constexpr int kDeviceCommunicationChannelSettingError = 9;
constexpr int kDeviceCommunicationChannelBusyError = 10;
constexpr int kDeviceCommunicationStatusOtherError = -1;

/// Status of one device on the TCP/IP path, DeviceReceiveData::status; failures are OR-ed. These
/// are not the request status codes above.
constexpr int kTCPIPUnitStatusConnectError = 4;
constexpr int kTCPIPUnitStatusException = 8;
constexpr int kTCPIPUnitStatusSendReceiveError = 16;

#pragma pack(push, 1)

/// Starts every request and every response. In a response only `type` is set.
struct DataHeader {
  std::int32_t data_length;    // the client's own, not interpreted
  char identifier[4];          // the client's own, not interpreted
  std::int32_t channel_index;  // 1 to kMaxChannel
  std::int32_t type;           // kRequestDataTypeRS485 or kRequestDataTypeTCPIP
  byte priority;               // the client's own, not interpreted
  byte buffer[47];             // the client's own, not interpreted
};

/// Serial parameters of one RS485 device, handed to the serial library unchanged.
struct SetPortParams {
  byte address;  // 1 to 31; 0: empty entry
  byte databits;
  std::int16_t timeout;
  byte delimitertype;
  byte byte_after_delimiter;
  byte com_wait_time;
};

/// The frame for one device.
struct SendData {
  byte address;  // 1 to 31; 0: nothing is sent. The answer goes to slot address - 1.
  // Bytes 0 and 1: frame length, least significant byte first. From byte 2 on: the frame.
  byte send_data[kDeviceCommunicationSendDataBuffSize];
};

/// Where one TCP/IP device is.
struct NetworkParams {
  byte address;         // 1 to 31; 0: empty entry
  char ip_address[18];  // dotted IPv4 address, NUL-terminated
  std::int32_t port;
  std::int32_t unit_id;  // carried, not used
  std::int16_t timeout;  // ms, for the connect and for each send and receive; 0 or less: no limit
};

/// Payload of an RS485 request.
struct DeviceAccessRS485 {
  std::int32_t channel;
  byte baud_rate;  // the serial library's code
  SetPortParams port_params[kMaxDeviceCountAtChannel];
  SendData send_data[kMaxDeviceCountAtChannel];
};

/// Payload of a TCP/IP request. Entry i of port_params belongs with entry i of send_data.
struct DeviceAccessTCPIP {
  std::int32_t channel;  // carried, not used
  NetworkParams port_params[kMaxDeviceCountAtChannel];
  SendData send_data[kMaxDeviceCountAtChannel];
};

/// One device's answer.
struct DeviceReceiveData {
  std::int16_t length;  // valid bytes in data; 0: no answer
  byte status;          // RS485: the serial library's receive status; TCP/IP: kTCPIPUnitStatus bits
  byte data[kDeviceCommunicationReceiveDataBuffSize];
};

/// The answers of a request; the device with address a answers in receive_data[a - 1].
struct ReceiveData {
  std::int32_t status;  // kDeviceCommunicationStatus...
  DeviceReceiveData receive_data[kMaxDeviceCountAtChannel];
};

/// The whole response.
struct ResponseReceiveData {
  DataHeader header;
  ReceiveData receive_data;
};

#pragma pack(pop)

static_assert(sizeof(DataHeader) == 64);
static_assert(offsetof(DataHeader, channel_index) == 8);
static_assert(offsetof(DataHeader, type) == 12);
static_assert(sizeof(SetPortParams) == 7);
static_assert(sizeof(SendData) == 129);
static_assert(sizeof(NetworkParams) == 29);
static_assert(offsetof(NetworkParams, port) == 19);
static_assert(offsetof(NetworkParams, unit_id) == 23);
static_assert(offsetof(NetworkParams, timeout) == 27);
static_assert(sizeof(DeviceAccessRS485) == 4221);
static_assert(offsetof(DeviceAccessRS485, send_data) == 222);
static_assert(sizeof(DeviceAccessTCPIP) == 4902);
static_assert(offsetof(DeviceAccessTCPIP, send_data) == 903);
static_assert(sizeof(DeviceReceiveData) == 441);
static_assert(sizeof(ReceiveData) == 13675);
static_assert(sizeof(ResponseReceiveData) == 13739);
static_assert(offsetof(ResponseReceiveData, receive_data) == 64);

/// The frame length that an entry states, 0 to 65535; only up to kMaxSendFrameLength there can be a
/// frame of that length.
inline int FrameLengthOf(const SendData& entry) {
  return entry.send_data[0] | entry.send_data[1] << 8;
}

/// The first byte of an entry's frame.
inline const byte* FrameOf(const SendData& entry) {
  return entry.send_data + kSendFrameOffset;
}

/// Puts a frame of `length`, 0 to kMaxSendFrameLength, bytes into an entry.
inline void SetFrame(SendData& entry, const byte* frame, int length) {
  entry.send_data[0] = static_cast<byte>(length & 0xFF);
  entry.send_data[1] = static_cast<byte>(length >> 8);
  std::memcpy(entry.send_data + kSendFrameOffset, frame, static_cast<std::size_t>(length));
}

}  // namespace tmsc

#endif  // TAMSEL_COMMUNICATION_COMMON_H_
