#include "worker_thread/thread_group.h"

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <pthread.h>

#include <condition_variable>
#include <exception>
#include <mutex>

namespace tmsc {

namespace {
// Bytes. Plenty for a device exchange, and small enough that the C library keeps the stacks for the
// next request.
constexpr std::size_t kStackSize = 256 * 1024;
}  // namespace

/// Shared with the threads: the last one may still be unlocking when the group is gone.
struct ThreadGroup::Running {
  std::mutex mutex;
  std::condition_variable all_ended;
  int count = 0;  // guarded by mutex
};

struct ThreadGroup::Task {
  Poco::Runnable& runnable;
  std::shared_ptr<Running> running;
};

ThreadGroup::ThreadGroup() : running_(std::make_shared<Running>()) {}

ThreadGroup::~ThreadGroup() {
  JoinAll();
}

void ThreadGroup::Start(Poco::Runnable& runnable) {
  auto task = std::make_unique<Task>(Task{runnable, running_});
  {
    const std::lock_guard<std::mutex> lock(running_->mutex);
    ++running_->count;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_t thread{};
  const int error = pthread_create(&thread, &attributes, RunTask, task.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    const std::lock_guard<std::mutex> lock(running_->mutex);
    --running_->count;
    throw Poco::SystemException("cannot start thread", error);
  }
  static_cast<void>(task.release());  // the thread's now
}

void* ThreadGroup::RunTask(void* task) {
  const std::unique_ptr<Task> owned(static_cast<Task*>(task));
  try {
    owned->runnable.run();
  } catch (const std::exception& failure) {
    Poco::ErrorHandler::handle(failure);
  }
  const std::lock_guard<std::mutex> lock(owned->running->mutex);
  if (--owned->running->count == 0) {
    owned->running->all_ended.notify_all();
  }
  return nullptr;
}

void ThreadGroup::JoinAll() {
  std::unique_lock<std::mutex> lock(running_->mutex);
  running_->all_ended.wait(lock, [this] { return running_->count == 0; });
}

}  // namespace tmsc
