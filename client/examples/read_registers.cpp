// Reads holding registers 0 to 3 of a TCP/IP device and of an RS485 device and prints them.
//
//   read_registers SOCKET IP PORT
//
// The TCP/IP device is asked on channel 3; the RS485 device is number 2 on channel 1, at 19200 bits
// a second, 8N1. Ends with 1 when one of them gave no registers.
#include <tamsel/status_text.h>
#include <tamsel/tamsel_client.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kAddress = 2;
constexpr int kTimeoutMs = 500;
// Above all that the daemon may take for one device with this time-out.
constexpr int kDeadlineMs = 10000;
constexpr int kBusyMs = 5000;

using Frame = std::vector<tmsc::byte>;

Frame ReadFrame(int transport) {
  constexpr int kHoldingRegisters = 3;
  Frame frame(TAMSEL_MAX_FRAME_LENGTH);
  const int length =
      tamsel_read_frame(transport, 1, kAddress, kHoldingRegisters, 0, 4, frame.data());
  if (length < 0) {
    throw std::runtime_error(tamsel_result_text(length));
  }
  frame.resize(static_cast<std::size_t>(length));
  return frame;
}

void Require(const tmsc::BuildError& error) {
  if (error) {
    throw std::runtime_error(*error);
  }
}

tmsc::TcpIpRequest TcpIpRequest(const Frame& frame, const std::string& ip_address, int port) {
  auto request = tmsc::MakeTcpIpRequest(3);
  Require(tmsc::AddTcpIpDevice(request, kAddress, ip_address, port, kTimeoutMs, frame));
  return request;
}

tmsc::Rs485Request Rs485Request(const Frame& frame) {
  auto request = tmsc::MakeRs485Request(1, static_cast<tmsc::byte>(tamsel_baud_code(19200)));
  tmsc::SetPortParams line{};
  line.address = kAddress;
  line.databits = static_cast<tmsc::byte>(tamsel_line_code("8N1"));
  line.timeout = kTimeoutMs;
  Require(tmsc::AddRs485Device(request, line, frame));
  return request;
}

/// Sends the request and prints the registers in the answer to `frame`.
template <typename Request>
void PrintRegisters(const std::string& name, const tmsc::TamselClient& client,
                    const Request& request, const Frame& frame) {
  const tmsc::ExchangeResult result = client.Exchange(request, kDeadlineMs, kBusyMs);
  if (result.outcome != tmsc::Outcome::kAnswered) {
    throw std::runtime_error(result.text);
  }
  if (const int status = result.response.receive_data.status; status != TAMSEL_STATUS_OK) {
    throw std::runtime_error(tmsc::StatusText(status));
  }
  const int transport = request.header.type;
  const auto reply = tmsc::DeviceAnswer(result.response, kAddress);
  if (!reply || reply->status != 0) {
    throw std::runtime_error(!reply ? "broken response"
                             : transport == TAMSEL_TCPIP
                                 ? tmsc::TcpDeviceStatusText(reply->status)
                                 : tmsc::Rs485DeviceStatusText(reply->status));
  }
  tamsel_answer answer;
  if (const int error = tamsel_decode_answer(transport, frame.data(), frame.size(),
                                             reply->frame.data(), reply->frame.size(), &answer)) {
    throw std::runtime_error(tamsel_result_text(error));
  }
  std::cout << name << ':';
  for (int index = 0; index < answer.count; ++index) {
    std::cout << ' ' << answer.values[index];
  }
  std::cout << '\n';
}

/// Runs one read; one that fails leaves the other alone.
template <typename Read>
bool Succeeds(const std::string& name, const Read& read) {
  try {
    read();
    return true;
  } catch (const std::exception& failure) {
    std::cerr << name << ": " << failure.what() << '\n';
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: read_registers SOCKET IP PORT\n";
    return EXIT_FAILURE;
  }
  const tmsc::TamselClient client(argv[1]);
  const bool has_tcpip = Succeeds("TCP/IP", [&] {
    const Frame frame = ReadFrame(TAMSEL_TCPIP);
    PrintRegisters("TCP/IP", client, TcpIpRequest(frame, argv[2], std::atoi(argv[3])), frame);
  });
  const bool has_rs485 = Succeeds("RS485", [&] {
    const Frame frame = ReadFrame(TAMSEL_RS485);
    PrintRegisters("RS485", client, Rs485Request(frame), frame);
  });
  return has_tcpip && has_rs485 ? EXIT_SUCCESS : EXIT_FAILURE;
}
