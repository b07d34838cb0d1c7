#include "worker_thread/worker_thread_runnable.h"

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>

#include "worker_thread/request.h"

namespace tmsc {

namespace {
constexpr long kQueueWaitMs = 500;
}  // namespace

WorkerThreadRunnable::WorkerThreadRunnable(Poco::NotificationQueue& queue) : queue_(queue) {}

WorkerThreadRunnable::~WorkerThreadRunnable() = default;

void WorkerThreadRunnable::run() {
  while (true) {
    Poco::AutoPtr<Poco::Notification> notification(queue_.waitDequeueNotification(kQueueWaitMs));
    if (notification.isNull()) {
      // Only an empty queue ends the loop: somebody waits for every request in it.
      if (is_stopped_) {
        return;
      }
      continue;
    }
    if (auto* request = dynamic_cast<Request*>(notification.get())) {
      request->Execute();
    }
  }
}

void WorkerThreadRunnable::Stop() {
  is_stopped_ = true;
}

}  // namespace tmsc
