#include "logger_setting/logger_setting_manager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/files.h"

namespace tmsc {
namespace {

class LoggerSettingManagerTest : public ::testing::Test {
 protected:
  /// The manager over a settings file with that content.
  LoggerSettingManager& Load(const std::string& xml) {
    const std::string path = folder_.Path("LoggerSetting.xml");
    std::ofstream(path) << xml;
    ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
    LoggerSettingManager::Destroy();
    LoggerSettingManager::Create();
    return *LoggerSettingManager::GetInstance();
  }
  LoggerSettingManager& LoadElements(const std::string& elements) {
    return Load("<?xml version=\"1.0\"?>\n<LoggerSetting>\n" + elements + "\n</LoggerSetting>");
  }

  test::TempFolder folder_;
};

TEST_F(LoggerSettingManagerTest, DefaultsHoldWithoutAUsableFile) {
  const std::string cases[] = {
      "", "<LoggerSetting><LogLevel>3", "<Other><LogLevel>3</LogLevel></Other>",
      "<?xml version=\"1.0\" encoding=\"none-such\"?><LoggerSetting/>", "<LoggerSetting/>"};
  for (const std::string& xml : cases) {
    LoggerSettingManager& settings = Load(xml);
    EXPECT_EQ(settings.GetComSocketPath(), "/mnt/system/tmscom/tamsel.com") << xml;
    EXPECT_EQ(settings.GetTamselComWatchdogPath(), "/mnt/system/check/tmsc");
    EXPECT_EQ(settings.GetWatchdogFileUpdateInterval(), 30);
    EXPECT_EQ(settings.GetLogDirectory(), "/media/sdcard/velmorahome/Log");
    EXPECT_EQ(settings.GetMaxLogRollIndex(), 12);
    EXPECT_EQ(settings.GetMaxLogFileSize(), "500KB");
    EXPECT_EQ(settings.GetTamselComStartComFailedCloseCount(), 100);
    EXPECT_TRUE(settings.IsEnableLogBufferedIO());
    EXPECT_EQ(settings.GetLogLevel(), 1) << xml;
    EXPECT_EQ(settings.GetLoggerLogMaxBufferdSize(), 4096);
    EXPECT_EQ(settings.GetMWApiRetryCount(), 3);
    EXPECT_EQ(settings.GetMWApiRetryInterval(), 100);
    EXPECT_FALSE(settings.GetTcpDrainTimeout().has_value());
    EXPECT_FALSE(settings.IsTcpReuseCheck());
  }
}

TEST_F(LoggerSettingManagerTest, ElementsBecomeSettings) {
  LoggerSettingManager& settings = LoadElements(
      "<!-- level --><LogLevel unit=\"x\"> 2 </LogLevel><SdcardPath>/mnt/a&amp;b </SdcardPath>"
      "<ComSocketPath></ComSocketPath><ApiRetryCount>1</ApiRetryCount>"
      "<ApiRetryCount>7</ApiRetryCount><loglevel>5</loglevel><ApiRetryInterval>5<sub>9</sub>"
      "</ApiRetryInterval><LoggerComLogMaxFileSize>1<!-- c "
      "-->2<![CDATA[3]]></LoggerComLogMaxFileSize>"
      "<TcpDrainTimeout>0</TcpDrainTimeout><TcpReuseCheck>1</TcpReuseCheck>");
  EXPECT_EQ(settings.GetLogLevel(), 2);
  EXPECT_EQ(settings.GetLogDirectory(), "/mnt/a&b /velmorahome/Log");
  EXPECT_EQ(settings.GetComSocketPath(), "");
  EXPECT_EQ(settings.GetMWApiRetryCount(), 7);
  EXPECT_EQ(settings.GetMWApiRetryInterval(), 5);
  EXPECT_EQ(settings.GetMaxLogFileSize(), "2");
  EXPECT_EQ(settings.GetTcpDrainTimeout(), 0);
  EXPECT_TRUE(settings.IsTcpReuseCheck());
}

TEST_F(LoggerSettingManagerTest, NumbersFallBack) {
  struct Case {
    const char* text;
    int interval;
  };
  for (const Case& c : {Case{"abc", 30}, Case{" 45", 45}, Case{"45sec", 45},
                        Case{"99999999999", 30}, Case{"-5", -5}, Case{"0x10", 0}, Case{"", 30}}) {
    LoggerSettingManager& settings = LoadElements(std::string("<WatchdogFileUpdateInterval>") +
                                                  c.text + "</WatchdogFileUpdateInterval>");
    EXPECT_EQ(settings.GetWatchdogFileUpdateInterval(), c.interval) << c.text;
  }
  for (const Case& c : {Case{"1000", 1000}, Case{"1001", 100}, Case{"0", 100}, Case{"1", 1}}) {
    LoggerSettingManager& settings =
        LoadElements(std::string("<TamselComStartComFailedCloseCount>") + c.text +
                     "</TamselComStartComFailedCloseCount>");
    EXPECT_EQ(settings.GetTamselComStartComFailedCloseCount(), c.interval) << c.text;
  }
  for (const auto& [text, is_on] :
       {std::pair("0", false), std::pair("2", true), std::pair("", true)}) {
    EXPECT_EQ(LoadElements(std::string("<EnableLogBufferedIO>") + text + "</EnableLogBufferedIO>")
                  .IsEnableLogBufferedIO(),
              is_on);
  }
}

TEST_F(LoggerSettingManagerTest, CreateKeepsTheFirstInstanceAndTheFileIsReadOnce) {
  LoadElements("<LogLevel>3</LogLevel>");
  std::ofstream(folder_.Path("LoggerSetting.xml"))
      << "<LoggerSetting><LogLevel>4</LogLevel></LoggerSetting>";
  LoggerSettingManager::Create();
  EXPECT_EQ(LoggerSettingManager::GetInstance()->GetLogLevel(), 3);
  LoggerSettingManager::Destroy();
  EXPECT_EQ(LoggerSettingManager::GetInstance(), nullptr);
}

}  // namespace
}  // namespace tmsc
