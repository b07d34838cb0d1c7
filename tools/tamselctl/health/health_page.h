#ifndef TAMSELCTL_HEALTH_HEALTH_PAGE_H_
#define TAMSELCTL_HEALTH_HEALTH_PAGE_H_

#include <iosfwd>

#include "health/health_view.h"

namespace tmsc::ctl {

/// One HTML page that needs nothing beside it and no script: who fails, a map of each channel by
/// device and hour, response times, causes, and tables of all of it.
void PrintHealthPage(std::ostream& output, const HealthView& view);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_PAGE_H_
