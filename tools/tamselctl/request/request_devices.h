#ifndef TAMSELCTL_REQUEST_REQUEST_DEVICES_H_
#define TAMSELCTL_REQUEST_REQUEST_DEVICES_H_

#include "request/question.h"
#include "request/request_options.h"

namespace tmsc::ctl {

/// The devices that the options name, each with its frame. Wrong usage is thrown as by ThrowUsage.
Batch MakeBatch(const Options& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_DEVICES_H_
