#include "access_worker_request/access_request.h"

namespace tmsc {

AccessRequest::AccessRequest(std::promise<std::shared_ptr<CommunicationResult>>* promise)
    : promise_(promise) {}

AccessRequest::~AccessRequest() {
  promise_ = nullptr;
}

std::future<std::shared_ptr<CommunicationResult>> AccessRequest::GetFuture() {
  return promise_->get_future();
}

}  // namespace tmsc
