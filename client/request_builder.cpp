#include "request_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace tmsc {
namespace {

template <typename Payload>
BuildError CheckDevice(const Payload& payload, int address, const std::vector<byte>& frame) {
  if (address < 1 || address > kMaxDeviceCountAtChannel) {
    return "device address " + std::to_string(address) + " is not 1 to " +
           std::to_string(kMaxDeviceCountAtChannel);
  }
  for (const SendData& entry : payload.send_data) {
    if (entry.address == address) {
      return "device address " + std::to_string(address) + " is in the request already";
    }
  }
  if (frame.empty() || frame.size() > kMaxSendFrameLength) {
    return "a frame of " + std::to_string(frame.size()) + " bytes is not 1 to " +
           std::to_string(kMaxSendFrameLength) + " bytes long";
  }
  return std::nullopt;
}

// Addresses are 1 to 31 and come once each, so a checked device always finds an empty entry.
template <typename Payload>
std::size_t EmptyEntry(const Payload& payload) {
  const auto* entry =
      std::find_if(std::begin(payload.send_data), std::end(payload.send_data),
                   [](const SendData& candidate) { return candidate.address == 0; });
  return static_cast<std::size_t>(entry - std::begin(payload.send_data));
}

void SetEntry(SendData& entry, int address, const std::vector<byte>& frame) {
  entry.address = static_cast<byte>(address);
  SetFrame(entry, frame.data(), static_cast<int>(frame.size()));
}

template <typename Request>
Request MakeRequest(int channel, int type) {
  Request request{};
  request.header.channel_index = channel;
  request.header.type = type;
  request.payload.channel = channel;
  return request;
}

}  // namespace

TcpIpRequest MakeTcpIpRequest(int channel) {
  return MakeRequest<TcpIpRequest>(channel, kRequestDataTypeTCPIP);
}

Rs485Request MakeRs485Request(int channel, byte baud_code) {
  auto request = MakeRequest<Rs485Request>(channel, kRequestDataTypeRS485);
  request.payload.baud_rate = baud_code;
  return request;
}

BuildError AddTcpIpDevice(TcpIpRequest& request, int address, const std::string& ip_address,
                          int port, int timeout_ms, const std::vector<byte>& frame) {
  if (BuildError error = CheckDevice(request.payload, address, frame)) {
    return error;
  }
  in_addr parsed{};
  if (::inet_pton(AF_INET, ip_address.c_str(), &parsed) != 1) {
    return "\"" + ip_address + "\" is not an IPv4 address";
  }
  if (port < 1 || port > 65535) {
    return "port " + std::to_string(port) + " is not 1 to 65535";
  }
  constexpr int kLongestTimeoutMs = std::numeric_limits<std::int16_t>::max();
  if (timeout_ms < 0 || timeout_ms > kLongestTimeoutMs) {
    return "a time-out of " + std::to_string(timeout_ms) + " ms is not 0 to " +
           std::to_string(kLongestTimeoutMs) + " ms";
  }
  const std::size_t index = EmptyEntry(request.payload);
  NetworkParams& place = request.payload.port_params[index];
  place = {};
  place.address = static_cast<byte>(address);
  // inet_pton takes at most 15 characters, so the text always ends within the 18 bytes.
  std::memcpy(place.ip_address, ip_address.c_str(), std::strlen(ip_address.c_str()));
  place.port = port;
  place.timeout = static_cast<std::int16_t>(timeout_ms);
  SetEntry(request.payload.send_data[index], address, frame);
  return std::nullopt;
}

BuildError AddRs485Device(Rs485Request& request, const SetPortParams& port_params,
                          const std::vector<byte>& frame) {
  if (BuildError error = CheckDevice(request.payload, port_params.address, frame)) {
    return error;
  }
  const std::size_t index = EmptyEntry(request.payload);
  request.payload.port_params[index] = port_params;
  SetEntry(request.payload.send_data[index], port_params.address, frame);
  return std::nullopt;
}

}  // namespace tmsc
