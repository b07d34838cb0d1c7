#ifndef TAMSEL_TESTS_SUPPORT_TEMP_FOLDER_H_
#define TAMSEL_TESTS_SUPPORT_TEMP_FOLDER_H_

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace tmsc::test {

/// A folder of the test's own, removed with everything in it at the end.
class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "tamsel-test-XXXXXX").string();
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

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_TEMP_FOLDER_H_
