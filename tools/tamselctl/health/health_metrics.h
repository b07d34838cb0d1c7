#ifndef TAMSELCTL_HEALTH_HEALTH_METRICS_H_
#define TAMSELCTL_HEALTH_HEALTH_METRICS_H_

#include <iosfwd>

#include "health/health_view.h"

namespace tmsc::ctl {

/// For Prometheus: text that both its scraper and node_exporter's textfile collector take.
/// docs/health.md lists the metrics.
void PrintHealthMetrics(std::ostream& output, const HealthView& view);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_METRICS_H_
