#ifndef TAMSEL_WORKER_THREAD_WORKER_THREAD_RUNNABLE_H_
#define TAMSEL_WORKER_THREAD_WORKER_THREAD_RUNNABLE_H_

#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>

#include <atomic>

namespace tmsc {

/// The loop of one worker thread: takes requests off the queue and executes them in order.
class WorkerThreadRunnable : public Poco::Runnable {
 public:
  /// The queue outlives the runnable.
  explicit WorkerThreadRunnable(Poco::NotificationQueue& queue);
  ~WorkerThreadRunnable() override;

  /// Serves until Stop. An exception, also one out of a request, ends that request alone.
  void run() override;

  /// Makes run return once the queue is empty, after at most one wait of 500 ms. Any thread.
  void Stop();

 private:
  bool ServeOne();

  Poco::NotificationQueue& queue_;
  std::atomic<bool> is_stopped_{false};
};

}  // namespace tmsc

#endif  // TAMSEL_WORKER_THREAD_WORKER_THREAD_RUNNABLE_H_
