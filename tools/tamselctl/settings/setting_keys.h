#ifndef TAMSELCTL_SETTINGS_SETTING_KEYS_H_
#define TAMSELCTL_SETTINGS_SETTING_KEYS_H_

#include <string>
#include <vector>

#include "logger_setting/logger_setting_manager.h"

namespace tmsc::ctl {

enum class SettingKind {
  kNumber,
  kFlag,  // a number that is 0 or 1
  kSize,  // a size text; its value is bytes
  kSocket,
  kFile,    // a file that the daemon makes, with its folder
  kFolder,  // a folder that has to be there
};

/// A key that the daemon reads.
struct SettingKey {
  const std::string& name;
  SettingKind kind;
  /// Of numbers: what the daemon takes as it stands.
  int least;
  int most;
  const char* unit;
  /// What the daemon works with: its getter, and what the part that asks for it makes of a value
  /// outside the range. Empty: nothing is set.
  std::string (*value)(LoggerSettingManager& settings);
  /// What an empty value means.
  const char* when_unset;
};

/// All of them.
const std::vector<SettingKey>& SettingKeys();

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_SETTING_KEYS_H_
