#include "worker_thread/request.h"

namespace tmsc {

Request::Request() = default;

Request::~Request() = default;

void Request::Execute() {}

}  // namespace tmsc
