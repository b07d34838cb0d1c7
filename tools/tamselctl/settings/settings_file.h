#ifndef TAMSELCTL_SETTINGS_SETTINGS_FILE_H_
#define TAMSELCTL_SETTINGS_SETTINGS_FILE_H_

#include <string>
#include <vector>

namespace tmsc::ctl {

/// Something wrong in a settings file.
struct Mistake {
  int line = 0;  // from 1; 0: nowhere in the file
  int column = 0;
  std::string key;  // may be empty
  std::string text;
};

/// An element that sets a key, with its text as the daemon takes it.
struct SettingEntry {
  std::string key;
  std::string value;
  int line = 0;
  int column = 0;
};

/// A settings file as the daemon takes it.
struct SettingsFile {
  bool is_found = false;
  /// In the order of the file; none when the daemon does not take the file. Of a key that is there
  /// twice the last counts.
  std::vector<SettingEntry> entries;
  std::vector<Mistake> mistakes;
};

/// Reads the file as the daemon's settings manager does, and notes where things stand and what it
/// leaves out. Never throws on what the file holds.
SettingsFile ReadSettingsFile(const std::string& path);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_SETTINGS_FILE_H_
