#include "access_worker_request/access_request.h"

#include "log/log_text.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("AReq");
}  // namespace

AccessRequest::AccessRequest(std::promise<std::shared_ptr<CommunicationResult>>* promise)
    : promise_(promise) {}

AccessRequest::~AccessRequest() {
  promise_ = nullptr;
}

void AccessRequest::Fulfil(const std::function<std::shared_ptr<CommunicationResult>()>& exchange) {
  std::shared_ptr<CommunicationResult> result;
  try {
    result = exchange();
  } catch (...) {
    // The waiting caller gets an empty result, closes its connection and frees the channel.
    LogException(kLogTag, "request exception:");
  }
  promise_->set_value(std::move(result));
}

std::future<std::shared_ptr<CommunicationResult>> AccessRequest::GetFuture() {
  return promise_->get_future();
}

}  // namespace tmsc
