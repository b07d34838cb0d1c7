#ifndef TAMSELCTL_HEALTH_HEALTH_JSON_H_
#define TAMSELCTL_HEALTH_HEALTH_JSON_H_

#include <iosfwd>

#include "health/health_view.h"

namespace tmsc::ctl {

/// For programs: all that the view holds, names as docs/health.md lists them.
void PrintHealthJson(std::ostream& output, const HealthView& view);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_JSON_H_
