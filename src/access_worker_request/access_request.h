#ifndef TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_

#include <future>
#include <memory>

#include "communication_result.h"
#include "worker_thread/request.h"

namespace tmsc {

/// A request whose caller waits for a result. The Execute of every subclass fulfils the promise
/// exactly once, on every path: the caller waits without a limit.
class AccessRequest : public Request {
 public:
  /// The promise stays the caller's own and lives until the caller has its result.
  explicit AccessRequest(std::promise<std::shared_ptr<CommunicationResult>>* promise);
  ~AccessRequest() override;

  /// The promise's future, which it yields only once.
  std::future<std::shared_ptr<CommunicationResult>> GetFuture();

 protected:
  std::promise<std::shared_ptr<CommunicationResult>>* promise_;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_
