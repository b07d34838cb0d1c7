#ifndef TAMSELCTL_HEALTH_HEALTH_TEXT_H_
#define TAMSELCTL_HEALTH_HEALTH_TEXT_H_

#include <iosfwd>

#include "health/health_view.h"

namespace tmsc::ctl {

/// For people: the daemon in a line, a table of the channels, a table of the devices. Devices that
/// never answered for one and the same cause, three or more of a channel and transport, stand in a
/// line together unless the view is a selection by address or of the failing ones.
void PrintHealthText(std::ostream& output, const HealthView& view);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_TEXT_H_
