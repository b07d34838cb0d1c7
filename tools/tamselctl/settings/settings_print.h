#ifndef TAMSELCTL_SETTINGS_SETTINGS_PRINT_H_
#define TAMSELCTL_SETTINGS_SETTINGS_PRINT_H_

#include <iosfwd>
#include <optional>

#include "settings/log_reach.h"
#include "settings/settings_check.h"

namespace tmsc::ctl {

/// For people.
void PrintSettings(std::ostream& output, const SettingsReport& report,
                   const std::optional<Poll>& poll);

/// One JSON object.
void PrintSettingsJson(std::ostream& output, const SettingsReport& report,
                       const std::optional<Poll>& poll);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_SETTINGS_PRINT_H_
