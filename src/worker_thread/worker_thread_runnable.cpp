#include "worker_thread/worker_thread_runnable.h"

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>

#include <chrono>
#include <thread>

#include "log/log_text.h"
#include "utility/constant_string.h"
#include "worker_thread/request.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("Worker");
constexpr long kQueueWaitMs = 500;
// Whatever failed, most likely memory, is not asked for again at once.
constexpr std::chrono::milliseconds kFailurePause{50};
}  // namespace

WorkerThreadRunnable::WorkerThreadRunnable(Poco::NotificationQueue& queue) : queue_(queue) {}

WorkerThreadRunnable::~WorkerThreadRunnable() = default;

void WorkerThreadRunnable::run() {
  bool is_over = false;
  while (!is_over) {
    try {
      is_over = ServeOne();
    } catch (...) {
      LogException(kLogTag, "worker exception:");
      std::this_thread::sleep_for(kFailurePause);
    }
  }
}

/// Executes the next request, if one comes within the wait. True when the worker is to end.
bool WorkerThreadRunnable::ServeOne() {
  Poco::AutoPtr<Poco::Notification> notification(queue_.waitDequeueNotification(kQueueWaitMs));
  if (notification.isNull()) {
    // Only an empty queue ends the loop: somebody waits for every request in it.
    return is_stopped_;
  }
  if (auto* request = dynamic_cast<Request*>(notification.get())) {
    request->Execute();
  }
  return false;
}

void WorkerThreadRunnable::Stop() {
  is_stopped_ = true;
}

}  // namespace tmsc
