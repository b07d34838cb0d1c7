/// The records of tamsel.h under their C++ names, with the constants that size them and the status
/// codes that they carry.
#ifndef TAMSEL_WIRE_RECORDS_H_
#define TAMSEL_WIRE_RECORDS_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tamsel.h"

namespace tmsc {

using byte = unsigned char;

/// Number of field-bus channels; channels are numbered 1 to kMaxChannel.
constexpr int kMaxChannel = TAMSEL_MAX_CHANNEL;
/// Devices on a channel and device entries in a record; addresses are 1 to this number.
constexpr int kMaxDeviceCountAtChannel = TAMSEL_MAX_ADDRESS;

/// Values of DataHeader::type.
constexpr int kRequestDataTypeRS485 = TAMSEL_RS485;
constexpr int kRequestDataTypeTCPIP = TAMSEL_TCPIP;

/// Bytes in SendData::send_data: two length bytes and at most 126 frame bytes.
constexpr int kDeviceCommunicationSendDataBuffSize = TAMSEL_SEND_BUFFER_SIZE;
/// Bytes of the length in SendData::send_data; the frame starts behind them.
constexpr int kSendFrameOffset = 2;
/// Bytes in DeviceReceiveData::data.
constexpr int kDeviceCommunicationReceiveDataBuffSize = TAMSEL_RECEIVE_BUFFER_SIZE;

/// Longest frame that SendData can hold, in bytes.
constexpr int kMaxSendFrameLength = TAMSEL_MAX_FRAME_LENGTH;
static_assert(kMaxSendFrameLength == kDeviceCommunicationSendDataBuffSize - kSendFrameOffset);

/// Status of a whole request, ReceiveData::status.
constexpr int kDeviceCommunicationStatusNoError = TAMSEL_STATUS_OK;
constexpr int kDeviceCommunicationStatusTimeout = TAMSEL_STATUS_TIMEOUT;
constexpr int kDeviceCommunicationStatusNetError = TAMSEL_STATUS_NET_ERROR;
constexpr int kDeviceCommunicationStatusSendError = TAMSEL_STATUS_SEND_ERROR;
constexpr int kDeviceCommunicationStatusReadError = TAMSEL_STATUS_READ_ERROR;
constexpr int kDeviceCommunicationStatusStartComFailed = TAMSEL_STATUS_NOT_STARTED;
constexpr int kDeviceCommunicationStatusSetComFlgsFailed = TAMSEL_STATUS_FLAGS_NOT_TAKEN;
constexpr int kDeviceCommunicationStatusPutOutputStreamFailed = TAMSEL_STATUS_FRAME_NOT_TAKEN;
constexpr int kDeviceCommunicationStatusOpenFailed = TAMSEL_STATUS_NOT_OPENED;
constexpr int kDeviceCommunicationChannelSettingError = TAMSEL_STATUS_BAD_CHANNEL;
constexpr int kDeviceCommunicationChannelBusyError = TAMSEL_STATUS_BUSY;
constexpr int kDeviceCommunicationStatusOtherError = TAMSEL_STATUS_NO_ANSWERS;

/// Status of one device on the TCP/IP path, DeviceReceiveData::status; failures are OR-ed. These
/// are not the request status codes above.
constexpr int kTCPIPUnitStatusConnectError = TAMSEL_DEVICE_CONNECT_FAILED;
constexpr int kTCPIPUnitStatusException = TAMSEL_DEVICE_EXCEPTION;
constexpr int kTCPIPUnitStatusSendReceiveError = TAMSEL_DEVICE_SEND_RECEIVE_FAILED;

using DataHeader = tamsel_data_header;
using SetPortParams = tamsel_port_params;
using SendData = tamsel_send_data;
using NetworkParams = tamsel_network_params;
using DeviceAccessRS485 = tamsel_rs485_access;
using DeviceAccessTCPIP = tamsel_tcpip_access;
using DeviceReceiveData = tamsel_device_data;
using ReceiveData = tamsel_receive_data;
using ResponseReceiveData = tamsel_response;

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

#endif  // TAMSEL_WIRE_RECORDS_H_
