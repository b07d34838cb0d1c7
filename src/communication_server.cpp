#include "communication_server.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>
#include <limits.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "channel/access_channel_manager.h"
#include "health/health_keeper.h"
#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/file_rights.h"
#include "utility/file_util.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("CommSvr");

constexpr int kListenBacklog = 100;
constexpr int kPollTimeoutMs = 5000;
constexpr std::size_t kDiscardedBytesMax = 64 * 1024;
constexpr std::chrono::milliseconds kClientTimeout{1000};
// Whatever failed, most likely memory, is not asked for again at once.
constexpr std::chrono::milliseconds kFailurePause{50};

/// Returns what bind returned, with errno set; -1 for a path that does not fit into the address.
int Bind(const Descriptor& listening_socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    errno = path.empty() ? ENOENT : ENAMETOOLONG;
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int unlink_error = ::unlink(path.c_str()) == 0 ? 0 : errno;
  const int bound =
      ::bind(listening_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (bound != 0 && errno == EADDRINUSE && unlink_error != 0) {
    errno = unlink_error;  // what is in the way may not be removed: that is the reason
  }
  return bound;
}

/// Takes what a client has sent besides: a close with input unread would reset the connection, and
/// the client would see an error in place of a plain end.
void DiscardInput(int connection) {
  char input[4096];
  for (std::size_t taken = 0; taken < kDiscardedBytesMax;) {
    const ssize_t count = ::recv(connection, input, sizeof(input), MSG_DONTWAIT);
    if (count <= 0) {
      return;
    }
    taken += static_cast<std::size_t>(count);
  }
}

/// The channel that health counts a request for; 0: none.
int HealthChannel(const DataHeader& header) {
  return IsCounted(header) ? int{header.channel_index} : 0;
}

void LimitReceiveTime(int connection) {
  const timeval timeout{std::chrono::duration_cast<std::chrono::seconds>(kClientTimeout).count(),
                        0};
  ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

}  // namespace

CommunicationServer::CommunicationServer()
    : channel_list_(std::make_unique<std::vector<std::shared_ptr<Channel>>>()),
      stop_event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      silent_clients_max_(SilentClients()) {
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
  for (bool is_over = false; !is_over;) {
    try {
      Serve(Listen());
      is_over = true;
    } catch (...) {
      LogException(kLogTag, "svr exception:");
      is_over = WaitForDescriptor(stop_event_.Get(), POLLIN, Deadline(kFailurePause)) > 0;
    }
  }
  silent_clients_.clear();
}

void CommunicationServer::Serve(const Descriptor& listening_socket) {
  bool is_serving = listening_socket.IsOpen();
  while (is_serving) {
    try {
      is_serving = ServePass(listening_socket);
    } catch (...) {
      LogException(kLogTag, "svr exception:");
      WaitForDescriptor(stop_event_.Get(), POLLIN, Deadline(kFailurePause));
    }
  }
}

/// Waits for events and serves them. False when the server is to end.
bool CommunicationServer::ServePass(const Descriptor& listening_socket) {
  Events events{};
  if (WaitForEvents(listening_socket, events) < 0) {
    LoggerLog::Debug(kLogTag, "select err continue");
    return true;
  }
  if (events[kStopEntry].revents != 0) {
    return false;
  }
  // The waiting clients first: one that has sent its header by now is not the one to go when a
  // new client needs its place.
  ServeSilentClients(events);
  return events[kListenerEntry].revents == 0 || AcceptClient(listening_socket);
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
    const std::string reason = std::generic_category().message(errno);
    LoggerLog::Fatal(kLogTag, LogText("bind fail. [", bound, "]"));
    LoggerLog::Fatal(kLogTag, LogText("bind path[", path.substr(0, PATH_MAX), "] [", reason, "]"));
  } else if (!OpenToClients(path)) {
    const std::string reason = std::generic_category().message(errno);
    LoggerLog::Warn(kLogTag, LogText("socket rights [", path, "] [", reason, "]"));
  }
  errno = 0;
  const int listening = ::listen(listening_socket.Get(), kListenBacklog);
  if (listening != 0) {
    const int error = errno;
    LoggerLog::Fatal(kLogTag, LogText("listen fail. [", listening, "][", error, "]"));
    listening_socket.Reset();
  }
  return listening_socket;
}

/// Waits for an event or for the first client's deadline. Returns what poll(2) returned.
int CommunicationServer::WaitForEvents(const Descriptor& listening_socket, Events& events) const {
  events[kStopEntry] = {stop_event_.Get(), POLLIN, 0};
  events[kListenerEntry] = {listening_socket.Get(), POLLIN, 0};
  std::size_t count = kFirstClientEntry;
  for (const SilentClient& client : silent_clients_) {
    events[count++] = {client.connection.Get(), POLLIN, 0};
  }
  int timeout = kPollTimeoutMs;
  if (!silent_clients_.empty()) {
    timeout = std::min(timeout, silent_clients_.front().deadline.RemainingMs());
  }
  return ::poll(events.data(), static_cast<nfds_t>(count), timeout);
}

bool CommunicationServer::AcceptClient(const Descriptor& listening_socket) {
  Descriptor connection(::accept4(listening_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!connection.IsOpen()) {
    LoggerLog::Error(kLogTag, "Fail to accept");
    return false;
  }
  if (silent_clients_.size() >= silent_clients_max_) {
    LoggerLog::Debug(kLogTag, "Exec read err...");
    silent_clients_.pop_front();
  }
  silent_clients_.push_back({std::move(connection), Deadline(kClientTimeout)});
  return true;
}

void CommunicationServer::ServeSilentClients(const Events& events) {
  // Each is taken off the front; those that stay silent go to the back, so the order stays.
  const std::size_t count = silent_clients_.size();
  for (std::size_t i = 0; i < count; ++i) {
    SilentClient client = std::move(silent_clients_.front());
    silent_clients_.pop_front();
    if (events[kFirstClientEntry + i].revents != 0) {
      HandleConnection(std::move(client.connection));
    } else if (client.deadline.HasPassed()) {
      LoggerLog::Debug(kLogTag, "Exec read err...");
    } else {
      silent_clients_.push_back(std::move(client));
    }
  }
}

void CommunicationServer::HandleConnection(Descriptor connection) {
  DataHeader header{};
  if (::recv(connection.Get(), &header, sizeof(header), MSG_DONTWAIT) != sizeof(header)) {
    LoggerLog::Debug(kLogTag, "Exec read err...");
    return;
  }
  const int channel_index = header.channel_index;
  if (channel_index < 1 || channel_index > kMaxChannel) {
    LoggerLog::Debug(kLogTag, LogText("Exec read err... ch[", channel_index, "]"));
    DiscardInput(connection.Get());
    return;
  }
  const int sock = connection.Get();
  Poco::AutoPtr<CommSocketWork> work(new CommSocketWork(sock, header));
  static_cast<void>(connection.Release());  // the work item's now
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  if (channels->GetUsedState(channel_index)) {
    LoggerLog::Debug(kLogTag, LogText("Busy ch[", channel_index, "] "));
    HealthKeeper::ReportBusy(HealthChannel(header));
    DiscardInput(sock);
    work->WriteResponseData(sock, CommunicationResult::CreateErrorCommunicationResult(
                                      header.type, kDeviceCommunicationChannelBusyError));
    work->close_sock();
    return;
  }
  channels->SetUsedState(channel_index, true);
  // The queue holds the only reference: the work item is destroyed on the worker's thread.
  CommSocketWork* const queued = work.duplicate();
  work.reset();
  try {
    (*channel_list_)[static_cast<std::size_t>(channel_index - 1)]->PutRequest(queued);
  } catch (...) {
    channels->SetUsedState(channel_index, false);
    throw;
  }
}

namespace {

void LogWriteFailure(int sock, int error) {
  LoggerLog::Error(kLogTag,
                   LogText("Rq dat type 485, write sock fail. [", error, "] sock[", sock, "]"));
}

/// Sends without a wait and takes what is sent off the front. Returns 0 when all is sent, EAGAIN
/// when there is no room for the rest, else why the client gets no more.
int SendWhatFits(int sock, std::string_view& unsent) {
  while (!unsent.empty()) {
    const ssize_t sent = ::send(sock, unsent.data(), unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent <= 0) {
      return sent < 0 ? errno : EPIPE;
    }
    unsent.remove_prefix(static_cast<std::size_t>(sent));
  }
  return 0;
}

/// The bytes of a response; empty, with a line in the log when there is no result at all, when
/// there is nothing to write.
std::string_view Bytes(const std::shared_ptr<CommunicationResult>& result) {
  if (!result) {
    LoggerLog::Error(kLogTag, "CommunicationResult nullptr");
  }
  const ResponseReceiveData* const record = result ? result->ReceiveData() : nullptr;
  return record == nullptr
             ? std::string_view()
             : std::string_view(reinterpret_cast<const char*>(record), sizeof(*record));
}

/// The status that the client is told; none when it gets no response.
std::optional<int> StatusOf(const std::shared_ptr<CommunicationResult>& result) {
  return result && result->ReceiveData() != nullptr
             ? std::optional<int>(result->ReceiveData()->receive_data.status)
             : std::nullopt;
}

}  // namespace

CommSocketWork::CommSocketWork(int sock, DataHeader header) : sock_(sock), header_(header) {}

CommSocketWork::~CommSocketWork() = default;

void CommSocketWork::close_sock() {
  sock_.Reset();
}

void CommSocketWork::Execute() {
  std::shared_ptr<CommunicationResult> result;
  bool is_answered = true;
  try {
    LoggerLog::Debug(kLogTag, LogText("Exe ch[", int{header_.channel_index},
                                      "] TID:", Poco::Thread::currentTid()));
    is_answered = PerformRequest(result);
  } catch (...) {
    LogException(kLogTag, "Exec exception:");
  }
  HandBack(is_answered, result);
}

void CommSocketWork::HandBack(bool is_answered,
                              const std::shared_ptr<CommunicationResult>& result) noexcept {
  HealthKeeper::ReportRequest(HealthChannel(header_), StatusOf(result), begin_);
  std::string_view unsent;
  try {
    if (is_answered) {
      unsent = Bytes(result);
    }
  } catch (...) {
    LogException(kLogTag, "Exec exception:");
  }
  DiscardInput(sock_.Get());
  const Deadline deadline(kClientTimeout);
  for (bool is_last_try = false; !TryHandBack(unsent, is_last_try);) {
    // Nobody is held up meanwhile: this client reads slowly.
    is_last_try = WaitForDescriptor(sock_.Get(), POLLOUT, deadline) <= 0;
  }
}

/// Sends what the client has room for. When that is all, or there is to be no further try, closes
/// the connection and frees the channel before anybody looks whether it is free; else false.
bool CommSocketWork::TryHandBack(std::string_view& unsent, bool is_last_try) noexcept {
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  const auto hand_back = channels->LockHandBack(header_.channel_index);
  const int error = SendWhatFits(sock_.Get(), unsent);
  if (error == EAGAIN && !is_last_try) {
    return false;
  }
  try {
    if (error != 0) {
      LogWriteFailure(sock_.Get(), error);
    }
    LoggerLog::Verbose(kLogTag, "close_sock");
  } catch (...) {
    LogException(kLogTag, "Exec exception:");
  }
  close_sock();
  channels->SetUsedState(header_.channel_index, false);
  return true;
}

/// False when there is no answer to give.
bool CommSocketWork::PerformRequest(std::shared_ptr<CommunicationResult>& result) {
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  const int channel_index = header_.channel_index;
  switch (header_.type) {
    case kRequestDataTypeRS485:
      LoggerLog::Debug(kLogTag, LogText("RqDatType 485 [", sock_.Get(), "] ch:", channel_index));
      result = ReadPayload<DeviceAccessRS485>([&](DeviceAccessRS485* payload) {
        return channels->AccessChannelRS485(channel_index)->RS485Access(&header_, payload);
      });
      return true;
    case kRequestDataTypeTCPIP:
      LoggerLog::Debug(kLogTag, LogText("RqDatType TCPIP [", sock_.Get(), "]"));
      result = ReadPayload<DeviceAccessTCPIP>([&](DeviceAccessTCPIP* payload) {
        return channels->AccessChannelTCPIP(channel_index)->TCPAccess(&header_, payload);
      });
      return true;
    default:
      LoggerLog::Debug(kLogTag, "unknown dat...");
      return false;
  }
}

template <typename Payload, typename Access>
std::shared_ptr<CommunicationResult> CommSocketWork::ReadPayload(Access access) {
  LimitReceiveTime(sock_.Get());
  Payload payload{};
  const ssize_t count = ::recv(sock_.Get(), &payload, sizeof(payload), 0);
  if (count != static_cast<ssize_t>(sizeof(payload))) {
    LoggerLog::Debug(kLogTag,
                     LogText("read len err[", count, "] Correctly[", sizeof(payload), "]"));
    return CommunicationResult::CreateErrorCommunicationResult(header_.type,
                                                               kDeviceCommunicationStatusReadError);
  }
  return access(&payload);
}

bool CommSocketWork::WriteResponseData(int sock, std::shared_ptr<CommunicationResult> result) {
  // A refused client takes its answer at once or not at all: the server waits for nobody.
  std::string_view unsent = Bytes(result);
  const int error = SendWhatFits(sock, unsent);
  if (error != 0) {
    LogWriteFailure(sock, error);
  }
  return result && error == 0;
}

}  // namespace tmsc
