#include "communication_server.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <mutex>

#include "channel/access_channel_manager.h"
#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/file_util.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("CommSvr");

constexpr int kListenBacklog = 100;
constexpr int kPollTimeoutMs = 5000;
constexpr std::size_t kSilentClientsMax = 64;
constexpr std::chrono::milliseconds kClientTimeout{1000};

// One lock a channel. A worker holds it from before it writes a response until the channel is free
// again, the server while it looks at the busy flag: a client that has its response and asks again
// at once does not find the channel still busy with its own last request.
std::mutex hand_back_mutexes[kMaxChannel];

std::mutex& HandBackMutex(int channel_index) {
  return hand_back_mutexes[channel_index - 1];
}

/// Returns what bind returned; -1 for a path that does not fit into the address.
int Bind(const Descriptor& listening_socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  ::unlink(path.c_str());
  return ::bind(listening_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

/// Takes what a client has sent besides: a close with input unread would reset the connection, and
/// the client would see an error in place of a plain end.
void DiscardInput(int connection) {
  char input[sizeof(DeviceAccessTCPIP)];
  [[maybe_unused]] const ssize_t count = ::recv(connection, input, sizeof(input), MSG_DONTWAIT);
}

void LimitReceiveTime(int connection) {
  const timeval timeout{std::chrono::duration_cast<std::chrono::seconds>(kClientTimeout).count(),
                        0};
  ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

}  // namespace

CommunicationServer::CommunicationServer()
    : channel_list_(std::make_unique<std::vector<std::shared_ptr<Channel>>>()),
      stop_event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!stop_event_.IsOpen()) {
    throw Poco::SystemException("server stop event", errno);
  }
  for (int slot = 0; slot < kMaxChannel; ++slot) {
    channel_list_->push_back(std::make_shared<Channel>(1, slot));
    channel_list_->back()->StartWorkers();
  }
  LoggerLog::Debug(kLogTag, "StartWorkers done");
}

CommunicationServer::~CommunicationServer() = default;

void CommunicationServer::Stop() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(stop_event_.Get(), &one, sizeof(one));
}

void CommunicationServer::run() {
  LoggerLog::Info(kLogTag, "Start communication svr");
  const Descriptor listening_socket = Listen();
  if (!listening_socket.IsOpen()) {
    return;
  }
  std::vector<pollfd> events;
  while (true) {
    const int ready = WaitForEvents(listening_socket, events);
    if (ready < 0) {
      LoggerLog::Debug(kLogTag, "select err continue");
      continue;
    }
    if (events[0].revents != 0) {
      return;
    }
    // The waiting clients first: one that has sent its header by now is not the one to go when a
    // new client needs its place.
    ServeSilentClients(events.data() + 2);
    if (events[1].revents != 0 && !AcceptClient(listening_socket)) {
      return;
    }
  }
}

/// The listening socket; none when listening failed.
Descriptor CommunicationServer::Listen() const {
  Descriptor listening_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string path = LoggerSettingManager::GetInstance()->GetComSocketPath();
  const std::string directory = FileUtil::GetDirectory(path);
  if (!FileUtil::IsFileExists(directory)) {
    FileUtil::CreateDirectory(directory, true);
  }
  LoggerLog::Debug(kLogTag, "bind start");
  const int bound = Bind(listening_socket, path);
  if (bound != 0) {
    LoggerLog::Fatal(kLogTag, "bind fail. [" + std::to_string(bound) + "]");
  }
  errno = 0;
  const int listening = ::listen(listening_socket.Get(), kListenBacklog);
  if (listening != 0) {
    const int error = errno;
    LoggerLog::Fatal(
        kLogTag, "listen fail. [" + std::to_string(listening) + "][" + std::to_string(error) + "]");
    listening_socket.Reset();
  }
  return listening_socket;
}

/// Fills `events` with the stop event, the listening socket and the silent clients, in this order,
/// and waits for one of them or for the first deadline.
int CommunicationServer::WaitForEvents(const Descriptor& listening_socket,
                                       std::vector<pollfd>& events) const {
  events.clear();
  events.push_back({stop_event_.Get(), POLLIN, 0});
  events.push_back({listening_socket.Get(), POLLIN, 0});
  for (const SilentClient& client : silent_clients_) {
    events.push_back({client.connection.Get(), POLLIN, 0});
  }
  int timeout = kPollTimeoutMs;
  if (!silent_clients_.empty()) {
    timeout = std::min(timeout, silent_clients_.front().deadline.RemainingMs());
  }
  return ::poll(events.data(), events.size(), timeout);
}

bool CommunicationServer::AcceptClient(const Descriptor& listening_socket) {
  Descriptor connection(::accept4(listening_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!connection.IsOpen()) {
    LoggerLog::Error(kLogTag, "Fail to accept");
    return false;
  }
  if (silent_clients_.size() == kSilentClientsMax) {
    LoggerLog::Debug(kLogTag, "Exec read err...");
    silent_clients_.pop_front();
  }
  silent_clients_.push_back({std::move(connection), Deadline(kClientTimeout)});
  return true;
}

void CommunicationServer::ServeSilentClients(const pollfd* client_events) {
  std::deque<SilentClient> still_silent;
  for (SilentClient& client : silent_clients_) {
    if ((client_events++)->revents != 0) {
      HandleConnection(std::move(client.connection));
    } else if (client.deadline.HasPassed()) {
      LoggerLog::Debug(kLogTag, "Exec read err...");
    } else {
      still_silent.push_back(std::move(client));
    }
  }
  silent_clients_ = std::move(still_silent);
}

void CommunicationServer::HandleConnection(Descriptor connection) {
  DataHeader header{};
  if (::recv(connection.Get(), &header, sizeof(header), MSG_DONTWAIT) != sizeof(header)) {
    LoggerLog::Debug(kLogTag, "Exec read err...");
    return;
  }
  const int channel_index = header.channel_index;
  if (channel_index < 1 || channel_index > kMaxChannel) {
    LoggerLog::Debug(kLogTag, "Exec read err... ch[" + std::to_string(channel_index) + "]");
    DiscardInput(connection.Get());
    return;
  }
  const int sock = connection.Get();
  Poco::AutoPtr<CommSocketWork> work(new CommSocketWork(connection.Release(), header));
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  const std::lock_guard<std::mutex> lock(HandBackMutex(channel_index));
  if (channels->GetUsedState(channel_index)) {
    LoggerLog::Debug(kLogTag, "Busy ch[" + std::to_string(channel_index) + "] ");
    DiscardInput(sock);
    work->WriteResponseData(sock, CommunicationResult::CreateErrorCommunicationResult(
                                      header.type, kDeviceCommunicationChannelBusyError));
    work->close_sock();
    return;
  }
  channels->SetUsedState(channel_index, true);
  (*channel_list_)[static_cast<std::size_t>(channel_index - 1)]->PutRequest(work.duplicate());
}

CommSocketWork::CommSocketWork(int sock, DataHeader header) : sock_(sock), header_(header) {}

CommSocketWork::~CommSocketWork() = default;

void CommSocketWork::close_sock() {
  sock_.Reset();
}

void CommSocketWork::Execute() {
  const int channel_index = header_.channel_index;
  LoggerLog::Debug(kLogTag, "Exe ch[" + std::to_string(channel_index) +
                                "] TID:" + std::to_string(Poco::Thread::currentTid()));
  const bool is_known =
      header_.type == kRequestDataTypeRS485 || header_.type == kRequestDataTypeTCPIP;
  std::shared_ptr<CommunicationResult> result;
  if (is_known) {
    try {
      result = PerformRequest();
    } catch (const std::exception& failure) {
      LoggerLog::Error(kLogTag, std::string("Exec exception ") + failure.what());
    }
  } else {
    LoggerLog::Debug(kLogTag, "unknown dat...");
  }

  const std::lock_guard<std::mutex> lock(HandBackMutex(channel_index));
  if (is_known) {
    WriteResponseData(sock_.Get(), result);
  }
  DiscardInput(sock_.Get());
  LoggerLog::Verbose(kLogTag, "close_sock");
  close_sock();
  AccessChannelManager::GetInstance()->SetUsedState(channel_index, false);
}

std::shared_ptr<CommunicationResult> CommSocketWork::PerformRequest() {
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  const int channel_index = header_.channel_index;
  if (header_.type == kRequestDataTypeRS485) {
    LoggerLog::Debug(kLogTag, "RqDatType 485 [" + std::to_string(sock_.Get()) +
                                  "] ch:" + std::to_string(channel_index));
    return ReadPayload<DeviceAccessRS485>([&](DeviceAccessRS485* payload) {
      return channels->AccessChannelRS485(channel_index)->RS485Access(&header_, payload);
    });
  }
  LoggerLog::Debug(kLogTag, "RqDatType TCPIP [" + std::to_string(sock_.Get()) + "]");
  return ReadPayload<DeviceAccessTCPIP>([&](DeviceAccessTCPIP* payload) {
    return channels->AccessChannelTCPIP(channel_index)->TCPAccess(&header_, payload);
  });
}

template <typename Payload, typename Access>
std::shared_ptr<CommunicationResult> CommSocketWork::ReadPayload(Access access) {
  LimitReceiveTime(sock_.Get());
  Payload payload{};
  const ssize_t count = ::recv(sock_.Get(), &payload, sizeof(payload), 0);
  if (count != static_cast<ssize_t>(sizeof(payload))) {
    LoggerLog::Debug(kLogTag, "read len err[" + std::to_string(count) + "] Correctly[" +
                                  std::to_string(sizeof(payload)) + "]");
    return CommunicationResult::CreateErrorCommunicationResult(header_.type,
                                                               kDeviceCommunicationStatusReadError);
  }
  return access(&payload);
}

bool CommSocketWork::WriteResponseData(int sock, std::shared_ptr<CommunicationResult> result) {
  if (!result) {
    LoggerLog::Error(kLogTag, "CommunicationResult nullptr");
    return false;
  }
  const auto* next = reinterpret_cast<const char*>(result->ReceiveData());
  if (next == nullptr) {
    return true;
  }
  const Deadline deadline(kClientTimeout);
  for (std::size_t left = sizeof(ResponseReceiveData); left > 0;) {
    const ssize_t written = ::send(sock, next, left, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written > 0) {
      next += written;
      left -= static_cast<std::size_t>(written);
      continue;
    }
    const int error = errno;
    if (written < 0 && error == EAGAIN && WaitForDescriptor(sock, POLLOUT, deadline) > 0) {
      continue;
    }
    LoggerLog::Error(kLogTag, "Rq dat type 485, write sock fail. [" + std::to_string(error) +
                                  "] sock[" + std::to_string(sock) + "]");
    return false;
  }
  return true;
}

}  // namespace tmsc
