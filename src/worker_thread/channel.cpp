#include "worker_thread/channel.h"

#include <Poco/Notification.h>

namespace tmsc {

namespace {
constexpr int kMaxThreads = 16;
constexpr int kIdleTimeSeconds = 60;
constexpr int kDefaultStackSize = 0;
}  // namespace

Channel::Channel() : Channel(1, 1) {}

Channel::Channel(int threads, int channel)
    : thread_pool_(std::make_unique<Poco::ThreadPool>(threads, kMaxThreads, kIdleTimeSeconds,
                                                      kDefaultStackSize)),
      notification_queue_(std::make_unique<Poco::NotificationQueue>()),
      thread_list_(std::make_unique<std::list<std::unique_ptr<WorkerThreadRunnable>>>()),
      channel_(channel) {
  for (int i = 0; i < threads; ++i) {
    thread_list_->push_back(std::make_unique<WorkerThreadRunnable>(*notification_queue_));
  }
}

Channel::~Channel() {
  for (const auto& worker : *thread_list_) {
    worker->Stop();
  }
  notification_queue_->wakeUpAll();
  thread_pool_->joinAll();
  thread_list_.reset();
  thread_pool_.reset();
  notification_queue_.reset();
}

void Channel::StartWorkers() {
  for (const auto& worker : *thread_list_) {
    thread_pool_->start(*worker);
  }
}

void Channel::PutRequest(Request* request) {
  if (request != nullptr) {
    notification_queue_->enqueueNotification(Poco::Notification::Ptr(request));
  }
}

}  // namespace tmsc
