#ifndef TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_

#include <functional>
#include <future>
#include <memory>

#include "communication_result.h"
#include "worker_thread/request.h"

namespace tmsc {

/// A request whose caller waits, without a limit, for a result. Execute is the subclass's: it calls
/// Fulfil.
class AccessRequest : public Request {
 public:
  /// The promise stays the caller's own and lives until the caller has its result.
  explicit AccessRequest(std::promise<std::shared_ptr<CommunicationResult>>* promise);
  ~AccessRequest() override;

  /// The promise's future, which it yields only once.
  std::future<std::shared_ptr<CommunicationResult>> GetFuture();

 protected:
  /// Fulfils the promise, exactly once, with what `exchange` returns; with an empty result when
  /// that throws. Needs no memory of its own, lets nothing escape.
  void Fulfil(const std::function<std::shared_ptr<CommunicationResult>()>& exchange);

  std::promise<std::shared_ptr<CommunicationResult>>* promise_;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_ACCESS_REQUEST_H_
