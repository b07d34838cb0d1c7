#ifndef TAMSELCTL_REQUEST_REQUEST_SITE_H_
#define TAMSELCTL_REQUEST_REQUEST_SITE_H_

#include <vector>

#include "request/question.h"
#include "request/request_options.h"

namespace tmsc::ctl {

/// The requests that read what the options name of a site file: on each bus the first register of
/// all devices, then the second, and so on. Wrong usage, and a file with mistakes, is thrown as by
/// ThrowUsage.
std::vector<Batch> MakeSiteBatches(const Options& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_SITE_H_
