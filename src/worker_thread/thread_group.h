#ifndef TAMSEL_WORKER_THREAD_THREAD_GROUP_H_
#define TAMSEL_WORKER_THREAD_THREAD_GROUP_H_

#include <Poco/Runnable.h>

#include <memory>

namespace tmsc {

/// Short-lived threads, one for each runnable, that are waited for together. One thread uses the
/// group.
///
/// Unlike a Poco::ThreadPool it does not wait for each thread to run before it starts the next. The
/// threads are detached, so that the process may end between the end of one and JoinAll.
class ThreadGroup {
 public:
  ThreadGroup();
  /// JoinAll().
  ~ThreadGroup();
  ThreadGroup(const ThreadGroup&) = delete;
  ThreadGroup& operator=(const ThreadGroup&) = delete;

  /// Runs `runnable`, which outlives JoinAll, on a thread of its own. Throws Poco::SystemException
  /// when the system has no thread left; the runnable then never runs.
  void Start(Poco::Runnable& runnable);

  /// Waits until every started runnable has returned.
  void JoinAll();

 private:
  struct Running;
  struct Task;

  static void* RunTask(void* task);

  std::shared_ptr<Running> running_;
};

}  // namespace tmsc

#endif  // TAMSEL_WORKER_THREAD_THREAD_GROUP_H_
