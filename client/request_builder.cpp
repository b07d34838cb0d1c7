#include "request_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

namespace tmsc {
namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxTimeoutMs = std::numeric_limits<std::int16_t>::max();

template <typename Payload>
int CheckDevice(const Payload& payload, int address, std::size_t frame_length) {
  if (address < 1 || address > kMaxDeviceCountAtChannel) {
    return TAMSEL_BAD_ADDRESS;
  }
  for (const SendData& entry : payload.send_data) {
    if (entry.address == address) {
      return TAMSEL_ADDRESS_TAKEN;
    }
  }
  return frame_length == 0 || frame_length > kMaxSendFrameLength ? TAMSEL_BAD_FRAME_LENGTH
                                                                 : TAMSEL_OK;
}

int CheckPlace(const char* ip_address, int port, int timeout_ms) {
  in_addr parsed{};
  if (::inet_pton(AF_INET, ip_address, &parsed) != 1) {
    return TAMSEL_BAD_IP_ADDRESS;
  }
  if (port < 1 || port > kMaxPort) {
    return TAMSEL_BAD_PORT;
  }
  return timeout_ms < 0 || timeout_ms > kMaxTimeoutMs ? TAMSEL_BAD_TIMEOUT : TAMSEL_OK;
}

// Addresses are 1 to 31 and come once each, so a checked device always finds an empty entry.
template <typename Payload>
std::size_t EmptyEntry(const Payload& payload) {
  const auto* entry =
      std::find_if(std::begin(payload.send_data), std::end(payload.send_data),
                   [](const SendData& candidate) { return candidate.address == 0; });
  return static_cast<std::size_t>(entry - std::begin(payload.send_data));
}

void SetEntry(SendData& entry, int address, const byte* frame, std::size_t frame_length) {
  entry.address = static_cast<byte>(address);
  SetFrame(entry, frame, static_cast<int>(frame_length));
}

template <typename Request>
void Begin(Request& request, int channel, int type) {
  request = {};
  request.header.channel_index = channel;
  request.header.type = type;
  request.payload.channel = channel;
}

std::string Range(int least, int most) {
  return " is not " + std::to_string(least) + " to " + std::to_string(most);
}

/// What is wrong with the device, as far as it does not depend on the transport.
BuildError ErrorOf(int result, int address, std::size_t frame_length) {
  switch (result) {
    case TAMSEL_OK:
      return std::nullopt;
    case TAMSEL_BAD_ADDRESS:
      return "device address " + std::to_string(address) + Range(1, kMaxDeviceCountAtChannel);
    case TAMSEL_ADDRESS_TAKEN:
      return "device address " + std::to_string(address) + " is in the request already";
    case TAMSEL_BAD_FRAME_LENGTH:
      return "a frame of " + std::to_string(frame_length) + " bytes" +
             Range(1, kMaxSendFrameLength) + " bytes long";
    default:
      return tamsel_result_text(result);
  }
}

}  // namespace

TcpIpRequest MakeTcpIpRequest(int channel) {
  TcpIpRequest request;
  tamsel_begin_tcpip(&request, channel);
  return request;
}

Rs485Request MakeRs485Request(int channel, byte baud_code) {
  Rs485Request request;
  tamsel_begin_rs485(&request, channel, baud_code);
  return request;
}

BuildError AddTcpIpDevice(TcpIpRequest& request, int address, const std::string& ip_address,
                          int port, int timeout_ms, const std::vector<byte>& frame) {
  const int result = tamsel_add_tcpip_device(&request, address, ip_address.c_str(), port,
                                             timeout_ms, frame.data(), frame.size());
  switch (result) {
    case TAMSEL_BAD_IP_ADDRESS:
      return "\"" + ip_address + "\" is not an IPv4 address";
    case TAMSEL_BAD_PORT:
      return "port " + std::to_string(port) + Range(1, kMaxPort);
    case TAMSEL_BAD_TIMEOUT:
      return "a time-out of " + std::to_string(timeout_ms) + " ms" + Range(0, kMaxTimeoutMs) +
             " ms";
    default:
      return ErrorOf(result, address, frame.size());
  }
}

BuildError AddRs485Device(Rs485Request& request, const SetPortParams& port_params,
                          const std::vector<byte>& frame) {
  const int result = tamsel_add_rs485_device(&request, &port_params, frame.data(), frame.size());
  return ErrorOf(result, port_params.address, frame.size());
}

}  // namespace tmsc

void tamsel_begin_tcpip(tamsel_tcpip_request* request, int channel) {
  tmsc::Begin(*request, channel, TAMSEL_TCPIP);
}

void tamsel_begin_rs485(tamsel_rs485_request* request, int channel, unsigned char baud_code) {
  tmsc::Begin(*request, channel, TAMSEL_RS485);
  request->payload.baud_rate = baud_code;
}

int tamsel_add_tcpip_device(tamsel_tcpip_request* request, int address, const char* ip_address,
                            int port, int timeout_ms, const unsigned char* frame,
                            size_t frame_length) {
  tamsel_tcpip_access& payload = request->payload;
  if (const int error = tmsc::CheckDevice(payload, address, frame_length)) {
    return error;
  }
  if (const int error = tmsc::CheckPlace(ip_address, port, timeout_ms)) {
    return error;
  }
  const std::size_t index = tmsc::EmptyEntry(payload);
  tamsel_network_params& place = payload.port_params[index];
  place = {};
  place.address = static_cast<unsigned char>(address);
  // inet_pton takes at most 15 characters, so the text always ends within the 18 bytes.
  std::memcpy(place.ip_address, ip_address, std::strlen(ip_address));
  place.port = port;
  place.timeout = static_cast<std::int16_t>(timeout_ms);
  tmsc::SetEntry(payload.send_data[index], address, frame, frame_length);
  return TAMSEL_OK;
}

int tamsel_add_rs485_device(tamsel_rs485_request* request, const tamsel_port_params* port_params,
                            const unsigned char* frame, size_t frame_length) {
  tamsel_rs485_access& payload = request->payload;
  if (const int error = tmsc::CheckDevice(payload, port_params->address, frame_length)) {
    return error;
  }
  const std::size_t index = tmsc::EmptyEntry(payload);
  payload.port_params[index] = *port_params;
  tmsc::SetEntry(payload.send_data[index], port_params->address, frame, frame_length);
  return TAMSEL_OK;
}
