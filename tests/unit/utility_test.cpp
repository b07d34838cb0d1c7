#include <gtest/gtest.h>

#include "support/files.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

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

}  // namespace
}  // namespace tmsc
