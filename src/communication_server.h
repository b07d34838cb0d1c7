#ifndef TAMSEL_COMMUNICATION_SERVER_H_
#define TAMSEL_COMMUNICATION_SERVER_H_

#include <Poco/Runnable.h>
#include <poll.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "communication_common.h"
#include "communication_result.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"
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

  /// Serves until listening or an accept fails, or until Stop.
  void run() override;

  /// Makes run return. The daemon itself serves until its process ends.
  void Stop();

 private:
  struct SilentClient {
    Descriptor connection;
    Deadline deadline;
  };

  Descriptor Listen() const;
  int WaitForEvents(const Descriptor& listening_socket, std::vector<pollfd>& events) const;
  bool AcceptClient(const Descriptor& listening_socket);
  void ServeSilentClients(const pollfd* client_events);
  void HandleConnection(Descriptor connection);

  std::unique_ptr<std::vector<std::shared_ptr<Channel>>> channel_list_;
  Descriptor stop_event_;
  std::deque<SilentClient> silent_clients_;  // oldest first; run's own
};

/// One client connection whose header has been read: reads the payload, performs the request,
/// writes the response, closes the connection and frees the channel.
class CommSocketWork : public Request {
 public:
  /// Takes over the connection.
  CommSocketWork(int sock, DataHeader header);
  ~CommSocketWork() override;

  void Execute() override;

  /// Writes one response record, within 1000 ms; false when it did not get through.
  bool WriteResponseData(int sock, std::shared_ptr<CommunicationResult> result);

  void close_sock();

 private:
  std::shared_ptr<CommunicationResult> PerformRequest();
  template <typename Payload, typename Access>
  std::shared_ptr<CommunicationResult> ReadPayload(Access access);

  Descriptor sock_;
  DataHeader header_;
};

}  // namespace tmsc

#endif  // TAMSEL_COMMUNICATION_SERVER_H_
