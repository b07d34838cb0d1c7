#include <Poco/Exception.h>
#include <Poco/File.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <numeric>
#include <set>

#include "support/files.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

namespace fs = std::filesystem;

TEST(StringUtilTest, NumbersReportTrailingCharactersAndRange) {
  int good = 0;
  EXPECT_EQ(StringUtil::StringToLong("0x1A", &good), 26);
  EXPECT_EQ(StringUtil::StringToLong(" -010", &good), -8);
  EXPECT_EQ(StringUtil::StringToLong("", &good), 0);
  EXPECT_EQ(StringUtil::StringToLongLong("0x7fffffffffffffff", &good), 0x7fffffffffffffff);
  EXPECT_EQ(StringUtil::StringToDouble("1.5e3", &good), 1500);
  EXPECT_EQ(good, 0);
  int bad = 0;
  EXPECT_EQ(StringUtil::HexStringToLong("fg", &bad), 15);
  EXPECT_EQ(bad, -1);
}

TEST(StringUtilTest, SizeTexts) {
  constexpr int kDefault = 10485760;
  using Row = std::pair<const char*, int>;
  for (const auto& [text, bytes] :
       {Row{"500kB", 512000}, Row{"10MB", 10485760}, Row{"1GB", 1073741824}, Row{"2048", 2048},
        Row{"500K", 1}, Row{"1.5MB", 1048576}, Row{"500 KB", 1024}, Row{"010KB", 8192}, Row{"B", 1},
        Row{"KB", 0}, Row{"", kDefault}, Row{"500KBytes", 512000}, Row{"-5KB", kDefault},
        Row{"2047MB", 2146435072}, Row{"2147483648", kDefault},
        Row{"99999999999999999999", kDefault}, Row{"-99999999999999999999KB", kDefault}}) {
    EXPECT_EQ(StringUtil::StringFileSizeToLogFileSize(text), bytes) << text;
  }
}

TEST(StringUtilTest, Texts) {
  unsigned char bytes[] = {0x01, 0xab, 0xff, 0x00};
  EXPECT_EQ(StringUtil::BytesToASCII(bytes, 4), std::string("\x01\xab\xff\0", 4));
  EXPECT_FALSE(StringUtil::StartWith("ab", "abc"));
  EXPECT_TRUE(StringUtil::StartWith("abc", "ab"));
  EXPECT_TRUE(StringUtil::EndWith("file.log", ".log"));
  EXPECT_FALSE(StringUtil::EndWith("log", ".log"));
  EXPECT_LT(StringUtil::ICompare("abc", "ABD"), 0);
  EXPECT_EQ(StringUtil::Trim(" \t x y\r\n"), "x y");
}

TEST(FileUtilTest, RefusalsAreFalseOrEmpty) {
  const test::TempFolder folder;
  const std::string text(5000, 'x');
  test::WriteFile(folder.Path("file"), text);
  EXPECT_EQ(StringUtil::LoadFromFile(folder.Path("file")), text);
  EXPECT_EQ(StringUtil::LoadFromFile(folder.Path()), "") << "a folder";
  EXPECT_TRUE(FileUtil::SetWriteable(folder.Path(), true));
  EXPECT_FALSE(FileUtil::SetWriteable(folder.Path("missing"), true));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path(), false)) << "is there";
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path(), true));
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("new"), false));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path("no/such"), false));
  EXPECT_FALSE(FileUtil::IsFileExists(""));
}

/// What a change leaves: type, mode and size of all that is in a folder.
std::string Listing(const std::string& folder) {
  std::set<std::string> lines;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const auto status = entry.symlink_status();
    const auto size = fs::is_regular_file(status) ? entry.file_size() : 0;
    lines.insert(entry.path().string() + " " + std::to_string(int(status.type())) + " " +
                 std::to_string(int(status.permissions())) + " " + std::to_string(size) + "\n");
  }
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

TEST(FileUtilTest, AnswersAsPocoFileDoes) {
  const test::TempFolder folder;
  const std::string root = folder.Path("root"), other = root + "/other";
  using Path = const std::string&;
  using Operation = std::function<long(Path)>;
  const auto remade = [](Path path) {
    Poco::File file(path);
    if (file.exists()) {
      file.remove();
    }
    return file.createFile();
  };
  const auto made = [](Path path) {
    Poco::File(path).createDirectories();
    return Poco::File(path).exists();
  };
  const auto writeable = [](Path path, bool is_on) {
    return Poco::File(path).setWriteable(is_on).canWrite() == is_on;
  };
  const std::pair<Operation, Operation> operations[] = {
      {[&](Path p) { return FileUtil::RenameFile(p, other); },
       [&](Path p) { return Poco::File(p).renameTo(other), true; }},
      {[&](Path p) { return FileUtil::RenameFile(root + "/file", p); },
       [&](Path p) { return Poco::File(root + "/file").renameTo(p), true; }},
      {FileUtil::CreateFile, remade},
      {FileUtil::IsFileExists, [](Path p) { return Poco::File(p).exists(); }},
      {[](Path p) { return FileUtil::CreateDirectory(p, true); }, made},
      {[](Path p) { return FileUtil::CreateDirectory(p, false); },
       [](Path p) { return Poco::File(p).createDirectory(); }},
      {[](Path p) { return FileUtil::SetWriteable(p, true); },
       [&](Path p) { return writeable(p, true); }},
      {[](Path p) { return FileUtil::SetWriteable(p, false); },
       [&](Path p) { return writeable(p, false); }},
      {FileUtil::CanWrite, [](Path p) { return Poco::File(p).canWrite(); }},
      {FileUtil::GetSize, [](Path p) { return long(Poco::File(p).getSize()); }}};
  const auto play = [&](const Operation& operation, Path path) {
    fs::remove_all(root);
    for (const char* made_first : {"/folder", "/full/inside"}) {
      fs::create_directories(root + made_first);
    }
    test::WriteFile(root + "/file", "text");
    test::WriteFile(root + "/closed", "");
    fs::permissions(root + "/closed", fs::perms::owner_read);
    for (const char* target : {"file", "folder", "missing"}) {
      fs::create_symlink(target, fs::path(root) / (std::string("to ") + target));
    }
    fs::create_symlink(root + "/loop", root + "/loop");
    long result = 0;
    try {
      result = operation(path);
    } catch (const Poco::Exception&) {  // false, or 0
    }
    return std::to_string(result) + "\n" + Listing(root);
  };
  for (const char* name : {"file", "closed", "folder", "full", "to file", "to folder", "to missing",
                           "loop", "missing", "file/x", "to missing/x"}) {
    for (const char* end : {"", "/", "//"}) {
      const std::string path = std::string(root).append("/").append(name).append(end);
      for (const auto& [ours, its] : operations) {
        EXPECT_EQ(play(ours, path), play(its, path)) << path;
      }
    }
  }
}

}  // namespace
}  // namespace tmsc
