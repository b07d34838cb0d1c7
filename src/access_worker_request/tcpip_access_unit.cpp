#include "access_worker_request/tcpip_access_unit.h"

#include <Poco/Exception.h>
#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <string_view>

#include "health/answer_end.h"
#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "socket_manager/tcp_socket_manager.h"
#include "utility/constant_string.h"
#include "utility/deadline.h"
#include "utility/string_util.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("TCPIPAUnit");

constexpr std::size_t receive_buffer_size = sizeof(DeviceReceiveData);
// MBAP header up to its length field: transaction, protocol, length (2 bytes each).
constexpr int data_header_size = 6;
constexpr int kFixedFramePort = 16001;
constexpr int kFixedFrameLength = 133;
constexpr int kHighestPort = 65535;

constexpr int kDrainSilenceMs = 1000;  // for a device without a time-out
constexpr int kDrainBytesMax = 64 * 1024;
constexpr std::chrono::seconds kDrainTimeMax{5};

std::string IpText(const NetworkParams& params) {
  const std::string_view field(params.ip_address, sizeof(params.ip_address));
  const std::size_t end = field.find('\0');
  return std::string(end == std::string_view::npos ? std::string_view() : field.substr(0, end));
}

/// The address that inet_aton(3) reads, as four decimal numbers; empty when it reads none. The text
/// may be written otherwise: padded with blanks, with fewer parts, with octal ones. Only control
/// characters behind it, such as the end of a line, are not taken: the log shows the text.
std::string DottedAddress(const std::string& text) {
  in_addr address{};
  char dotted[INET_ADDRSTRLEN] = {};
  const auto is_control = [](unsigned char character) { return std::iscntrl(character) != 0; };
  if (std::none_of(text.begin(), text.end(), is_control) &&
      ::inet_aton(text.c_str(), &address) != 0) {
    ::inet_ntop(AF_INET, &address, dotted, sizeof(dotted));
  }
  return dotted;
}

std::string HexText(byte* bytes, int count) {
  return StringUtil::BytesToHexString(bytes, static_cast<unsigned int>(count));
}

std::string DisplayText(const std::exception& failure) {
  const auto* poco_failure = dynamic_cast<const Poco::Exception*>(&failure);
  return poco_failure != nullptr ? poco_failure->displayText() : failure.what();
}

bool IsUnreachable(int error) {
  return error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN || error == ENETDOWN ||
         error == ENONET;
}

/// Why a connect ended with `result`, a value of TCPSocket::Connect; errno is still its own.
HealthEnd ConnectEnd(int result) {
  if (result == TCPSocket::kNoDescriptor) {
    return {TAMSEL_CAUSE_NO_DESCRIPTOR};
  }
  const int error = result == TCPSocket::kConnectFailed ? errno : result;
  switch (error) {
    case TCPSocket::kConnectTimeout:
    case ETIMEDOUT:
      return {TAMSEL_CAUSE_CONNECT_TIMED_OUT};
    case ECONNREFUSED:
      return {TAMSEL_CAUSE_CONNECT_REFUSED};
    default:
      return {IsUnreachable(error) ? TAMSEL_CAUSE_UNREACHABLE : TAMSEL_CAUSE_CONNECT_FAILED, error};
  }
}

/// What an error says about a connection that was made; `otherwise` for one that says nothing.
HealthEnd BrokenEnd(int error, const HealthEnd& otherwise) {
  switch (error) {
    case ECONNRESET:
      return {TAMSEL_CAUSE_RESET};
    case EPIPE:  // closed by the device some time ago
      return {TAMSEL_CAUSE_CLOSED};
    case ETIMEDOUT:  // the keep-alive's
      return {TAMSEL_CAUSE_NO_ANSWER};
    default:
      return IsUnreachable(error) ? HealthEnd{TAMSEL_CAUSE_UNREACHABLE, error} : otherwise;
  }
}

/// Why a send took `sent` bytes only, -1 with the send's errno for none.
HealthEnd SendEnd(int sent) {
  const int error = sent < 0 ? errno : 0;
  return BrokenEnd(error, {TAMSEL_CAUSE_NOT_TAKEN, error});
}

/// Why a receive gave `count`, 0 or -1 with its errno, behind `received` bytes of the frame.
HealthEnd ReceiveEnd(int count, int received) {
  if (received > 0) {
    return BrokenEnd(count < 0 ? errno : 0, {TAMSEL_CAUSE_CUT_SHORT, received});
  }
  return count < 0 ? BrokenEnd(errno, {TAMSEL_CAUSE_NO_ANSWER}) : HealthEnd{TAMSEL_CAUSE_CLOSED};
}

}  // namespace

TCPIPAccessUnit::TCPIPAccessUnit(NetworkParams* network_params, SendData* send_data, int channel)
    : p_network_params_(network_params),
      p_send_data_(send_data),
      channel_(channel),
      ip_(IpText(*network_params)) {}

TCPIPAccessUnit::~TCPIPAccessUnit() = default;

int TCPIPAccessUnit::Status() {
  return status_;
}

DeviceReceiveData* TCPIPAccessUnit::ReceiveData() {
  return p_device_receive_data_.get();
}

SendData* TCPIPAccessUnit::GetSendData() {
  return p_send_data_;
}

void TCPIPAccessUnit::run() {
  if (p_network_params_->address == 0) {
    return;
  }
  p_device_receive_data_.reset(
      static_cast<DeviceReceiveData*>(std::calloc(1, receive_buffer_size)));
  if (!p_device_receive_data_) {
    status_ |= kTCPIPUnitStatusException;
    ReportHealth({TAMSEL_CAUSE_DAEMON_FAILURE});
    return;
  }
  AccessDevice();
}

bool TCPIPAccessUnit::AccessDevice() {
  if (FrameLengthOf(*p_send_data_) == 0 || p_send_data_->address == 0) {
    return true;
  }
  // Outside the try block: the handler removes the socket from the pool under its lock.
  ExclusiveSocket exclusive;
  try {
    if (!IsPossible()) {
      return false;
    }
    LoggerLog::Debug(kLogTag, LogText("[", ip_, "] [", int{p_network_params_->port}, "][",
                                      p_send_data_->address, "]"));
    exclusive = TCPSocketManager::GetInstance()->LockSocket(ip_, p_network_params_->port,
                                                            p_send_data_->address, LockDeadline());
    if (!exclusive.socket) {
      return Refuse(kTCPIPUnitStatusConnectError, {TAMSEL_CAUSE_CONNECTION_IN_USE},
                    LogText("Con in use [", ip_, "]"));
    }
    return Exchange(*exclusive.socket);
  } catch (const std::exception& failure) {
    status_ |= kTCPIPUnitStatusException;
    ReportHealth({TAMSEL_CAUSE_DAEMON_FAILURE});
    HandleException(failure, exclusive.socket.get());
    return false;
  }
}

/// Logs the failure and forgets the connection, if there is one. When there is no memory even for
/// that, the connection is closed all the same.
void TCPIPAccessUnit::HandleException(const std::exception& failure, TCPSocket* socket) noexcept {
  if (socket != nullptr) {
    socket->Close();
  }
  try {
    LoggerLog::Debug(kLogTag, LogText("Exception [", ip_, "][", DisplayText(failure), "]"));
    if (socket != nullptr) {
      Forget(*socket);
    }
  } catch (const std::exception&) {
  }
}

/// How long another exchange on the same connection is waited for: as long as one with this
/// device's time-out usually takes at most, connect, send, header, body and drain. Without a
/// time-out that may be any time.
std::optional<Deadline> TCPIPAccessUnit::LockDeadline() const {
  // A copy: no reference may be bound to a member of a packed record.
  const std::chrono::milliseconds timeout(int{p_network_params_->timeout});
  return timeout.count() == 0
             ? std::nullopt
             : std::optional<Deadline>(4 * std::max(timeout, timeout.zero()) + kDrainTimeMax);
}

/// Refuses entries that no exchange can make sense of.
bool TCPIPAccessUnit::IsPossible() {
  const int address = p_send_data_->address;
  const int length = FrameLengthOf(*p_send_data_);
  const int port = p_network_params_->port;
  if (address > kMaxDeviceCountAtChannel) {
    return Refuse(kTCPIPUnitStatusConnectError, {},  // no such device: no health of it
                  LogText("Dev addr err. dev[", address, "]"));
  }
  if (length > kMaxSendFrameLength) {
    return Refuse(kTCPIPUnitStatusSendReceiveError, {TAMSEL_CAUSE_BAD_FRAME_LENGTH, length},
                  LogText("Snd dat len err. dev[", address, "] len[", length, "]"));
  }
  if (DottedAddress(ip_).empty()) {
    return Refuse(kTCPIPUnitStatusConnectError, {TAMSEL_CAUSE_BAD_IP_ADDRESS},
                  LogText("IP addr err. dev[", address, "]"));
  }
  if (port < 1 || port > kHighestPort) {
    return Refuse(kTCPIPUnitStatusConnectError, {TAMSEL_CAUSE_BAD_PORT, port},
                  LogText("Port err. dev[", address, "] port[", port, "]"));
  }
  return true;
}

bool TCPIPAccessUnit::Exchange(TCPSocket& socket) {
  if (!Connect(socket) || !Send(socket) || !ReceiveHeader(socket)) {
    return false;
  }
  byte* data = p_device_receive_data_->data;
  const int data_length = p_network_params_->port == kFixedFramePort
                              ? kFixedFrameLength
                              : (data[4] << 8 | data[5]) + data_header_size;
  LoggerLog::Debug(kLogTag,
                   LogText("Dat Len [", ip_, "][", data_length, "][", data_header_size, "]"));
  if (data_length > kDeviceCommunicationReceiveDataBuffSize) {
    return Fail(socket, kTCPIPUnitStatusSendReceiveError, {TAMSEL_CAUSE_TOO_LONG, data_length},
                LoggerLog::Info, LogText("Rcv dat size too large.[", ip_, "]"));
  }
  if (!ReceiveBody(socket, data_length)) {
    return false;
  }
  ReportHealth(AnswerEnd(data, data_length));
  p_device_receive_data_->length = static_cast<std::int16_t>(data_length);
  LoggerLog::Debug(kLogTag, LogText("rcvBytes [", ip_, "][", HexText(data, data_length), "]"));
  if (!Drain(socket)) {
    Forget(socket);
  }
  return true;
}

/// How the exchange ended now that the frame is whole. A fixed one is no Modbus/TCP: whatever it
/// is, it is the device's.
HealthEnd TCPIPAccessUnit::AnswerEnd(const byte* data, int data_length) const {
  const auto response_time = Deadline::Clock::now() - sent_at_;
  HealthEnd end = p_network_params_->port == kFixedFramePort
                      ? HealthEnd{TAMSEL_CAUSE_ANSWERED}
                      : EndOfTcpAnswer(*p_send_data_, data, data_length);
  if (end.cause == TAMSEL_CAUSE_ANSWERED) {
    end.response_time = std::chrono::duration_cast<std::chrono::microseconds>(response_time);
  }
  return end;
}

bool TCPIPAccessUnit::Connect(TCPSocket& socket) {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  if (settings != nullptr && settings->IsTcpReuseCheck() && socket.IsSocketCreated() &&
      !socket.IsReusable()) {
    LoggerLog::Debug(kLogTag, LogText("Con not reusable [", ip_, "]"));
    socket.Close();
  }
  const int read_write_timeout = p_network_params_->timeout;
  const int result = socket.Connect(read_write_timeout);
  if (result != 0) {
    return Fail(socket, kTCPIPUnitStatusConnectError, ConnectEnd(result), LoggerLog::Debug,
                LogText("Con err.  [", ip_, "][", result, "]"));
  }
  socket.SetReadWriteTimeout(read_write_timeout, read_write_timeout);
  return true;
}

bool TCPIPAccessUnit::Send(TCPSocket& socket) {
  const int send_data_length = FrameLengthOf(*p_send_data_);
  byte* const frame = p_send_data_->send_data + kSendFrameOffset;
  LoggerLog::Debug(kLogTag,
                   LogText("sendBytes [", ip_, "][", HexText(frame, send_data_length), "]"));
  // Before the send: a device nearby may have answered when it returns.
  sent_at_ = Deadline::Clock::now();
  const int sent_size = socket.SendBytes(frame, send_data_length);
  if (sent_size != send_data_length) {
    return Fail(socket, kTCPIPUnitStatusSendReceiveError, SendEnd(sent_size), LoggerLog::Info,
                LogText("Could not snd dat [", ip_, "][", sent_size, "]"));
  }
  return true;
}

bool TCPIPAccessUnit::ReceiveHeader(TCPSocket& socket) {
  int receive_size = 0;
  while (receive_size < data_header_size) {
    const int read_size = socket.ReceiveBytes(p_device_receive_data_->data + receive_size,
                                              data_header_size - receive_size);
    if (read_size <= 0) {
      return Fail(socket, kTCPIPUnitStatusSendReceiveError, ReceiveEnd(read_size, receive_size),
                  LoggerLog::Info, LogText("Read dat err.[", ip_, "] size[", read_size, "]"));
    }
    receive_size += read_size;
  }
  return true;
}

bool TCPIPAccessUnit::ReceiveBody(TCPSocket& socket, int data_length) {
  int receive_size = data_header_size;
  while (receive_size < data_length) {
    const int read_size = socket.ReceiveBytes(p_device_receive_data_->data + receive_size,
                                              data_length - receive_size);
    if (read_size <= 0) {
      return Fail(socket, kTCPIPUnitStatusSendReceiveError, ReceiveEnd(read_size, receive_size),
                  LoggerLog::Info, LogText("Read dat err.[", ip_, "]"));
    }
    receive_size += read_size;
    LoggerLog::Debug(kLogTag,
                     LogText("Rcv dat [", ip_, "][", receive_size, "] / [", data_length, "]"));
  }
  return true;
}

/// How much silence ends the drain; 0: no drain.
std::chrono::milliseconds TCPIPAccessUnit::DrainSilence() const {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  const auto setting = settings != nullptr ? settings->GetTcpDrainTimeout() : std::nullopt;
  const int device_timeout = p_network_params_->timeout;
  return std::chrono::milliseconds(
      setting.value_or(device_timeout > 0 ? device_timeout : kDrainSilenceMs));
}

/// Discards what the device sends behind its frame, until it is silent or closes the connection.
/// False when it does neither within the bounds: what it sends later would pass for an answer.
bool TCPIPAccessUnit::Drain(TCPSocket& socket) const {
  const std::chrono::milliseconds silence_time = DrainSilence();
  if (silence_time.count() == 0) {
    return true;
  }
  const Deadline end(silence_time + kDrainTimeMax);
  int drained = 0;
  for (int loop_cnt = 0; drained < kDrainBytesMax; ++loop_cnt) {
    const Deadline silence(silence_time);
    const bool is_last_wait = end.Moment() < silence.Moment();
    if (WaitForDescriptor(socket.GetDescriptor(), POLLIN, is_last_wait ? end : silence) == 0) {
      return !is_last_wait;
    }
    unsigned char tmpbuf[1024];
    const int read_size = socket.ReceiveBytes(tmpbuf, sizeof(tmpbuf));
    if (read_size <= 0) {
      return true;
    }
    if (loop_cnt % 10 == 1) {
      LoggerLog::Verbose(kLogTag, LogText("ReceiveBytes loop cnt:", loop_cnt));
    }
    drained += read_size;
  }
  return false;
}

void TCPIPAccessUnit::ReportHealth(const HealthEnd& end) {
  if (is_reported_ || FrameLengthOf(*p_send_data_) == 0) {
    return;  // a failure behind the answer, or no exchange at all
  }
  is_reported_ = true;
  const std::string address = DottedAddress(ip_);
  HealthKeeper::ReportExchange({channel_, kRequestDataTypeTCPIP, p_send_data_->address, address,
                                static_cast<std::uint32_t>(int{p_network_params_->port})},
                               end);
}

bool TCPIPAccessUnit::Refuse(int status, const HealthEnd& end, const std::string& text) {
  LoggerLog::Warn(kLogTag, text);
  status_ |= status;
  ReportHealth(end);
  return false;
}

bool TCPIPAccessUnit::Fail(TCPSocket& socket, int status, const HealthEnd& end, LogCall log,
                           const std::string& text) {
  log(kLogTag, text);
  status_ |= status;
  ReportHealth(end);
  Forget(socket);
  return false;
}

/// Closes the connection, so that the next exchange with the device connects afresh.
void TCPIPAccessUnit::Forget(TCPSocket& socket) {
  socket.Close();
  TCPSocketManager::GetInstance()->RemoveSocket(ip_, p_network_params_->port,
                                                p_send_data_->address);
}

}  // namespace tmsc
