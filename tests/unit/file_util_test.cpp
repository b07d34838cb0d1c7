#include "utility/file_util.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/files.h"

namespace tmsc {
namespace {

TEST(FileUtilTest, FilesAndFolders) {
  const test::TempFolder folder;
  const std::string file = folder.Path("a.log");
  std::ofstream(file) << "12345";
  EXPECT_EQ(FileUtil::GetSize(file), 5u);
  EXPECT_TRUE(FileUtil::CreateFile(file));
  EXPECT_EQ(FileUtil::GetSize(file), 0u);
  std::ofstream(folder.Path("b.log")) << "old";
  EXPECT_TRUE(FileUtil::RenameFile(file, folder.Path("b.log")));
  EXPECT_FALSE(FileUtil::IsFileExists(file));
  EXPECT_EQ(FileUtil::GetSize(folder.Path("b.log")), 0u);

  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("d/e/f"), true));
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("d/e/f"), true));
  EXPECT_FALSE(FileUtil::CreateDirectory(folder.Path("d"), false));
  EXPECT_TRUE(FileUtil::CreateDirectory(folder.Path("g"), false));
  EXPECT_TRUE(FileUtil::CanWrite(folder.Path("g")));
  EXPECT_TRUE(FileUtil::SetWriteable(folder.Path("g"), true));
}

TEST(FileUtilTest, RefusalsAreFalse) {
  const test::TempFolder folder;
  const std::string missing = folder.Path("no/such");
  const std::string file = folder.Path("file");
  std::ofstream(file) << "x";
  EXPECT_FALSE(FileUtil::CreateFile(missing));
  EXPECT_FALSE(FileUtil::RenameFile(missing, file));
  EXPECT_FALSE(FileUtil::CreateDirectory(missing, false));
  EXPECT_FALSE(FileUtil::CreateDirectory(file + "/below", true));
  EXPECT_FALSE(FileUtil::SetWriteable(missing, true));
  EXPECT_FALSE(FileUtil::CanWrite(missing));
  EXPECT_EQ(FileUtil::GetSize(missing), 0u);
  EXPECT_FALSE(FileUtil::IsFileExists(""));
}

TEST(FileUtilTest, Paths) {
  EXPECT_EQ(FileUtil::GetDirectory("/a/b/c.log"), "/a/b/");
  EXPECT_EQ(FileUtil::GetFileName("/a/b/c.log"), "c.log");
  EXPECT_EQ(FileUtil::GetFileName("/a/b/"), "");
  EXPECT_EQ(FileUtil::GetFileName(""), "");
}

TEST(FileUtilTest, TheSwitchIsOnFromTheStart) {
  EXPECT_TRUE(FileUtil::IsLogWriteEnable());
  FileUtil::Create();
  FileUtil::GetInstance()->SetLogWriteEnable(false);
  EXPECT_FALSE(FileUtil::GetInstance()->IsLogWriteEnable());
  FileUtil::Create();
  EXPECT_TRUE(FileUtil::IsLogWriteEnable());
  FileUtil::Destroy();
}

}  // namespace
}  // namespace tmsc
