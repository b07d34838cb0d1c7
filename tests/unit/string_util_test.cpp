#include "utility/string_util.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace tmsc {
namespace {

TEST(StringUtilTest, NumbersReportTrailingCharactersAndRange) {
  struct Case {
    const char* text;
    long value;
    int error;
  };
  for (const Case& c :
       std::vector<Case>{{"12abc", 12, -1},
                         {"0x1A", 26, 0},
                         {"010", 8, 0},
                         {" -7", -7, 0},
                         {"", 0, 0},
                         {"7 ", 7, -1},
                         {"99999999999999999999", std::numeric_limits<long>::max(), -1}}) {
    int error = 0;
    EXPECT_EQ(StringUtil::StringToLong(c.text, &error), c.value) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
    EXPECT_EQ(StringUtil::StringToLong(c.text, nullptr), c.value) << c.text;
  }
  int error = 0;
  EXPECT_EQ(StringUtil::HexStringToLong("ff", &error), 255);
  EXPECT_EQ(StringUtil::StringToLongLong("0x7fffffffffffffff", &error),
            std::numeric_limits<long long>::max());
  EXPECT_EQ(StringUtil::StringToDouble("1.5e3", &error), 1500);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(StringUtil::HexStringToLong("fg", &error), 15);
  EXPECT_EQ(error, -1);
}

TEST(StringUtilTest, SizeTexts) {
  struct Case {
    const char* text;
    int bytes;
  };
  constexpr int kDefault = 10485760;
  for (const Case& c : std::vector<Case>{{"500KB", 512000},
                                         {"500kb", 512000},
                                         {"10MB", 10485760},
                                         {"1GB", 1073741824},
                                         {"2048B", 2048},
                                         {"2048", 2048},
                                         {"500K", 1},
                                         {"1.5MB", 1048576},
                                         {"500 KB", 1024},
                                         {"010KB", 8192},
                                         {"B", 1},
                                         {"KB", 0},
                                         {"", kDefault},
                                         {"0", 0},
                                         {"500KBytes", 512000},
                                         {"-5KB", kDefault},
                                         {"2GB", kDefault},
                                         {"2047MB", 2146435072},
                                         {"2147483647", 2147483647},
                                         {"2147483648", kDefault},
                                         {"9999999999GB", kDefault},
                                         {"-1", kDefault}}) {
    EXPECT_EQ(StringUtil::StringFileSizeToLogFileSize(c.text), c.bytes) << c.text;
  }
}

TEST(StringUtilTest, DumpsAndComparisons) {
  unsigned char bytes[] = {0x01, 0xab, 0xff, 0x00};
  EXPECT_EQ(StringUtil::BytesToHexString(bytes, 4), "01abff00");
  EXPECT_EQ(StringUtil::BytesToHexString(bytes, 0), "");
  EXPECT_EQ(StringUtil::BytesToASCII(bytes, 4), std::string("\x01\xab\xff\0", 4));
  EXPECT_FALSE(StringUtil::StartWith("ab", "abc"));
  EXPECT_TRUE(StringUtil::StartWith("abc", "ab"));
  EXPECT_TRUE(StringUtil::StartWith("", ""));
  EXPECT_TRUE(StringUtil::EndWith("file.log", ".log"));
  EXPECT_FALSE(StringUtil::EndWith("log", ".log"));
  EXPECT_TRUE(StringUtil::EndWith("", ""));
  EXPECT_EQ(StringUtil::ICompare("Abc", "aBC"), 0);
  EXPECT_LT(StringUtil::ICompare("abc", "ABD"), 0);
  EXPECT_EQ(StringUtil::Trim(" \t x y\r\n"), "x y");
  EXPECT_EQ(StringUtil::LoadFromFile("/nowhere/to/be/found"), "");
}

}  // namespace
}  // namespace tmsc
