#ifndef TAMSEL_WORKER_THREAD_CHANNEL_H_
#define TAMSEL_WORKER_THREAD_CHANNEL_H_

#include <Poco/NotificationQueue.h>
#include <Poco/ThreadPool.h>

#include <list>
#include <memory>

#include "worker_thread/request.h"
#include "worker_thread/worker_thread_runnable.h"

namespace tmsc {

/// A first-in, first-out queue of requests with its own worker threads. With one worker, as
/// everywhere in the daemon, the requests run strictly one after the other.
class Channel {
 public:
  Channel();
  /// `threads` workers (1 to 16); `channel` is kept for identification only. No thread runs yet.
  Channel(int threads, int channel);
  /// Executes what is queued, then ends the workers.
  virtual ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Starts the workers; call once.
  void StartWorkers();

  /// Queues a request and takes over the caller's reference; the caller must not touch it again. A
  /// null pointer is ignored. Any thread.
  void PutRequest(Request* request);

 private:
  std::unique_ptr<Poco::ThreadPool> thread_pool_;
  std::unique_ptr<Poco::NotificationQueue> notification_queue_;
  std::unique_ptr<std::list<std::unique_ptr<WorkerThreadRunnable>>> thread_list_;
  int channel_;
};

}  // namespace tmsc

#endif  // TAMSEL_WORKER_THREAD_CHANNEL_H_
