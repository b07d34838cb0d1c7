#ifndef TAMSEL_WORKER_THREAD_REQUEST_H_
#define TAMSEL_WORKER_THREAD_REQUEST_H_

#include <Poco/Notification.h>

namespace tmsc {

/// The base of every work item of a Channel. Reference counted; once queued it belongs to the
/// queue, and the worker releases it after Execute.
class Request : public Poco::Notification {
 public:
  Request();
  ~Request() override;

  /// Performs the work, on the channel's worker thread. Lets no exception escape.
  virtual void Execute();
};

}  // namespace tmsc

#endif  // TAMSEL_WORKER_THREAD_REQUEST_H_
