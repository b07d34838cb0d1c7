#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "support/files.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

TEST(StringUtilTest, NumbersReportTrailingCharactersAndRange) {
  const struct {
    const char* text;
    long value;
    int error;
  } rows[] = {{"12abc", 12, -1}, {"0x1A", 26, 0}, {"010", 8, 0}, {" -7", -7, 0}, {"", 0, 0}};
  for (const auto& row : rows) {
    int error = 0;
    EXPECT_EQ(StringUtil::StringToLong(row.text, &error), row.value) << row.text;
    EXPECT_EQ(error, row.error) << row.text;
  }
  int error = 0;
  EXPECT_EQ(StringUtil::StringToLongLong("0x7fffffffffffffff", &error),
            std::numeric_limits<long long>::max());
  EXPECT_EQ(StringUtil::StringToDouble("1.5e3", &error), 1500);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(StringUtil::HexStringToLong("fg", &error), 15);
  EXPECT_EQ(error, -1);
}

TEST(StringUtilTest, SizeTexts) {
  constexpr int kDefault = 10485760;
  const struct {
    const char* text;
    int bytes;
  } rows[] = {{"500kB", 512000},
              {"10MB", 10485760},
              {"1GB", 1073741824},
              {"2048", 2048},
              {"500K", 1},
              {"1.5MB", 1048576},
              {"500 KB", 1024},
              {"010KB", 8192},
              {"B", 1},
              {"KB", 0},
              {"", kDefault},
              {"500KBytes", 512000},
              {"-5KB", kDefault},
              {"2047MB", 2146435072},
              {"2147483648", kDefault},
              {"99999999999999999999", kDefault},
              {"-99999999999999999999KB", kDefault}};
  for (const auto& row : rows) {
    EXPECT_EQ(StringUtil::StringFileSizeToLogFileSize(row.text), row.bytes) << row.text;
  }
}

TEST(StringUtilTest, TextsAndFiles) {
  unsigned char bytes[] = {0x01, 0xab, 0xff, 0x00};
  EXPECT_EQ(StringUtil::BytesToASCII(bytes, 4), std::string("\x01\xab\xff\0", 4));
  EXPECT_FALSE(StringUtil::StartWith("ab", "abc"));
  EXPECT_TRUE(StringUtil::StartWith("abc", "ab"));
  EXPECT_TRUE(StringUtil::EndWith("file.log", ".log"));
  EXPECT_FALSE(StringUtil::EndWith("log", ".log"));
  EXPECT_LT(StringUtil::ICompare("abc", "ABD"), 0);
  EXPECT_EQ(StringUtil::Trim(" \t x y\r\n"), "x y");
  const test::TempFolder folder;
  const std::string text(5000, 'x');
  test::WriteFile(folder.Path("file"), text);
  EXPECT_EQ(StringUtil::LoadFromFile(folder.Path("file")), text);
  EXPECT_EQ(StringUtil::LoadFromFile(folder.Path()), "") << "a folder";
}

TEST(FileUtilTest, RefusalsAreFalse) {
  const test::TempFolder folder;
  const std::string file = folder.Path("file");
  test::WriteFile(file, "12345");
  EXPECT_EQ(FileUtil::GetSize(file), 5U);
  EXPECT_TRUE(FileUtil::SetWriteable(file, true));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path(), false)) << "is there";
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path(), true));
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("new"), false));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path("no/such"), false));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path(std::string(5000, 'x')), true));
  EXPECT_FALSE(FileUtil::SetWriteable(folder.Path("missing"), true));
  EXPECT_FALSE(FileUtil::IsFileExists(""));
  EXPECT_EQ(FileUtil::GetFileName("/a/b/"), "");
}

}  // namespace
}  // namespace tmsc
