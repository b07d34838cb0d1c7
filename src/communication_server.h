#ifndef TAMSEL_COMMUNICATION_SERVER_H_
#define TAMSEL_COMMUNICATION_SERVER_H_

#include <Poco/Runnable.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "communication_common.h"
#include "communication_result.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"
#include "utility/descriptor_limit.h"
#include "worker_thread/channel.h"
#include "worker_thread/request.h"

namespace tmsc {

/// Listens on the Unix-domain socket of the settings, reads request headers and hands each
/// connection to the worker of its channel.
///
/// run belongs to one thread; Stop may come from another. Connections that have not sent their
/// header wait beside the listening socket in the one poll of run, 64 at most and 1000 ms each, so
/// that a silent client holds nobody but itself.
class CommunicationServer : public Poco::Runnable {
 public:
  /// Creates the three channels and starts their workers. Throws when the system has no thread or
  /// descriptor left.
  CommunicationServer();
  /// run has returned. Waits for requests in progress.
  ~CommunicationServer() override;

  /// Serves until listening or an accept fails, or until Stop; then closes the clients that wait.
  /// An exception ends only what it came from.
  void run() override;

  /// Makes run return. The daemon itself serves until its process ends.
  void Stop();

 private:
  struct SilentClient {
    Descriptor connection;
    Deadline deadline;
  };

  /// What poll(2) waits for; from kFirstClientEntry on silent_clients_, in their order.
  static constexpr std::size_t kStopEntry = 0;
  static constexpr std::size_t kListenerEntry = 1;
  static constexpr std::size_t kFirstClientEntry = 2;
  using Events = std::array<pollfd, kFirstClientEntry + kSilentClientsMost>;

  Descriptor Listen() const;
  void Serve(const Descriptor& listening_socket);
  bool ServePass(const Descriptor& listening_socket);
  int WaitForEvents(const Descriptor& listening_socket, Events& events) const;
  bool AcceptClient(const Descriptor& listening_socket);
  void ServeSilentClients(const Events& events);
  void HandleConnection(Descriptor connection);

  std::unique_ptr<std::vector<std::shared_ptr<Channel>>> channel_list_;
  Descriptor stop_event_;
  const std::size_t silent_clients_max_;
  std::deque<SilentClient> silent_clients_;  // oldest first; run's own
};

/// One client connection whose header has been read: reads the payload, performs the request,
/// writes the response, closes the connection and frees the channel.
class CommSocketWork : public Request {
 public:
  /// Takes over the connection, unless it throws.
  CommSocketWork(int sock, DataHeader header);
  ~CommSocketWork() override;

  /// Serves the request: closes the connection and frees the channel on every path.
  void Execute() override;

  /// Ends the request: reports it to the health, writes `result`, where `is_answered` and as far as
  /// the client takes it within 1000 ms, closes the connection and frees the channel: on every
  /// path, and without memory of its own. Execute does it; any thread may in its place.
  void HandBack(bool is_answered, const std::shared_ptr<CommunicationResult>& result) noexcept;

  /// Writes one response record to a client that has to take it at once; false when it did not get
  /// through.
  bool WriteResponseData(int sock, std::shared_ptr<CommunicationResult> result);

  void close_sock();

 private:
  bool PerformRequest(std::shared_ptr<CommunicationResult>& result);
  bool TryHandBack(std::string_view& unsent, bool is_last_try) noexcept;
  template <typename Payload, typename Access>
  std::shared_ptr<CommunicationResult> ReadPayload(Access access);

  Descriptor sock_;
  DataHeader header_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace tmsc

#endif  // TAMSEL_COMMUNICATION_SERVER_H_
