#ifndef TAMSEL_TESTS_SUPPORT_FILES_H_
#define TAMSEL_TESTS_SUPPORT_FILES_H_

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>

namespace tmsc::test {

/// A folder of the test's own, removed with everything in it at the end.
class TempFolder {
 public:
  explicit TempFolder(
      const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string name = (parent / "tamsel-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no folder " + name);
    }
    path_ = name;
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string Path(const std::string& name = "") const {
    return name.empty() ? path_ : path_ + "/" + name;
  }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

/// How often `part` stands in `text`.
inline int CountText(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// Values of the settings file by key.
using Settings = std::map<std::string, std::string>;

/// Settings that put every path into the folder, and do without the waits for which there is no
/// use; `changes` go over them.
inline Settings SettingsIn(const TempFolder& folder, Settings changes = {}) {
  // An RS485 request that finds no port fails without waits.
  changes.insert({{"ComSocketPath", folder.Path("socket")},
                  {"SdcardPath", folder.Path("card")},
                  {"TamselComWatchdogFilePath", folder.Path("check/tmsc")},
                  {"TcpDrainTimeout", "20"},
                  {"Rs485StartWait", "0"},
                  {"ApiRetryCount", "0"},
                  {"ApiRetryInterval", "0"}});
  return changes;
}

/// Where the log is with SettingsIn.
inline std::string LogPathIn(const TempFolder& folder) {
  return folder.Path("card/velmorahome/Log/LoggerCom.log");
}

inline std::string SettingsXml(const Settings& settings) {
  std::string xml = "<LoggerSetting>\n";
  for (const auto& [key, value] : settings) {
    xml.append("<").append(key).append(">").append(value);
    xml.append("</").append(key).append(">\n");
  }
  return xml + "</LoggerSetting>\n";
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_FILES_H_
