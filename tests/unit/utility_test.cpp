#include <gtest/gtest.h>

#include "support/files.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

TEST(StringUtilTest, NumbersReportTrailingCharactersAndRange) {
  struct Case {
    const char* text;
    double value;
    int error;
  };
  const auto expect = [](const Case& c, auto convert) {
    int error = 0;
    EXPECT_EQ(convert(c.text, &error), c.value) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
  };
  for (const Case& c : {Case{"12abc", 12, -1}, Case{"0x1A", 26, 0}, Case{"010", 8, 0},
                        Case{" -7", -7, 0}, Case{"", 0, 0}}) {
    expect(c, StringUtil::StringToLong);
  }
  expect({"0x7ffffffffffff", 0x7ffffffffffff, 0}, StringUtil::StringToLongLong);
  expect({"1.5e3", 1500, 0}, StringUtil::StringToDouble);
  expect({"fg", 15, -1}, StringUtil::HexStringToLong);
}

TEST(StringUtilTest, SizeTexts) {
  constexpr int kDefault = 10485760;
  struct Case {
    const char* text;
    int bytes;
  };
  for (const Case& c :
       {Case{"500kB", 512000}, Case{"10MB", 10485760}, Case{"1GB", 1073741824}, Case{"2048", 2048},
        Case{"500K", 1}, Case{"1.5MB", 1048576}, Case{"500 KB", 1024}, Case{"010KB", 8192},
        Case{"B", 1}, Case{"KB", 0}, Case{"", kDefault}, Case{"500KBytes", 512000},
        Case{"-5KB", kDefault}, Case{"2047MB", 2146435072}, Case{"2147483648", kDefault},
        Case{"99999999999999999999", kDefault}, Case{"-99999999999999999999KB", kDefault}}) {
    EXPECT_EQ(StringUtil::StringFileSizeToLogFileSize(c.text), c.bytes) << c.text;
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
  EXPECT_TRUE(FileUtil::SetWriteable(folder.Path(), true));
  EXPECT_FALSE(FileUtil::SetWriteable(folder.Path("missing"), true));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path(), false)) << "is there";
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path(), true));
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("new"), false));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path("no/such"), false));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path(std::string(5000, 'x')), true));
  EXPECT_FALSE(FileUtil::IsFileExists(""));
}

}  // namespace
}  // namespace tmsc
