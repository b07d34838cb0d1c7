#ifndef TAMSELCTL_SETTINGS_SETTINGS_CHECK_H_
#define TAMSELCTL_SETTINGS_SETTINGS_CHECK_H_

#include <string>
#include <vector>

#include "settings/daemon_user.h"
#include "settings/setting_keys.h"
#include "settings/settings_file.h"

namespace tmsc::ctl {

/// Where an effective value comes from.
enum class SettingSource {
  kDefault,
  kFile,
  kFallback,  // the file's text cannot be used
};

struct EffectiveSetting {
  const SettingKey* key;
  std::string value;
  SettingSource source;
  std::string text;  // in the file, when the value comes from there or should
};

struct SettingsReport {
  std::string path;
  bool is_found = false;
  std::vector<EffectiveSetting> settings;
  /// In the order of the file.
  std::vector<Mistake> mistakes;
};

/// Checks a settings file against what the daemon, which `settings` stand for, makes of it. Paths
/// are tried for `user`; null: whether they exist is left out.
SettingsReport CheckSettings(const std::string& path, LoggerSettingManager& settings,
                             const DaemonUser* user);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_SETTINGS_CHECK_H_
