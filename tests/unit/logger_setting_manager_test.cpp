#include "logger_setting/logger_setting_manager.h"

#include <sys/stat.h>

#include <string>

#include "support/log_fixture.h"

namespace tmsc {
namespace {

class LoggerSettingManagerTest : public test::LogFixture {
 protected:
  LoggerSettingManager& Load(const std::string& xml) { return UseSettingFile(xml); }
  LoggerSettingManager& LoadElements(const std::string& elements) {
    return Load("<?xml version=\"1.0\"?>\n<LoggerSetting>\n" + elements + "\n</LoggerSetting>");
  }
};

std::string Nested(int depth) {
  std::string xml;
  for (int i = 0; i < depth; ++i) {
    xml += "<a>";
  }
  for (int i = 0; i < depth; ++i) {
    xml += "</a>";
  }
  return xml;
}

TEST_F(LoggerSettingManagerTest, DefaultsHoldWithoutAUsableFile) {
  const std::string cases[] = {
      "", "<LoggerSetting><LogLevel>3", "<Other><LogLevel>3</LogLevel></Other>", Nested(100000),
      "<LoggerSetting><LogLevel>3</LogLevel>" + Nested(300) + "</LoggerSetting>"};
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
    EXPECT_EQ(settings.GetRs485StartWait(), 200);
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
  EXPECT_EQ(LoadElements("<Rs485StartWait>-1</Rs485StartWait>").GetRs485StartWait(), 200);
  EXPECT_EQ(LoadElements("<Rs485StartWait>0</Rs485StartWait>").GetRs485StartWait(), 0);
  for (const auto& [text, is_on] :
       {std::pair("0", false), std::pair("2", true), std::pair("", true)}) {
    EXPECT_EQ(LoadElements(std::string("<EnableLogBufferedIO>") + text + "</EnableLogBufferedIO>")
                  .IsEnableLogBufferedIO(),
              is_on);
  }
}

TEST_F(LoggerSettingManagerTest, AnyEncodingAndLengthIsRead) {
  for (const std::string encoding : {"Shift_JIS", "none-such", "ISO-8859-1", "UTF-8"}) {
    LoggerSettingManager& settings =
        Load("<?xml version=\"1.0\" encoding=\"" + encoding + "\"?><LoggerSetting><!--" +
             std::string(200000, 'x') + "--><LogLevel>4</LogLevel></LoggerSetting>");
    EXPECT_EQ(settings.GetLogLevel(), 4) << encoding;
  }
  EXPECT_EQ(Load("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><LoggerSetting><SdcardPath>\xe4"
                 "</SdcardPath></LoggerSetting>")
                .GetLogDirectory(),
            "\xc3\xa4/velmorahome/Log");
}

TEST_F(LoggerSettingManagerTest, OnlyARegularFileIsRead) {
  const std::string pipe = folder_.Path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  ::setenv(kLoggerSettingFileVariable.c_str(), pipe.c_str(), 1);
  LoggerSettingManager::Destroy();
  LoggerSettingManager::Create();  // a pipe without a writer would hold it for ever
  EXPECT_EQ(LoggerSettingManager::GetInstance()->GetLogLevel(), 1);
}

TEST_F(LoggerSettingManagerTest, CreateKeepsTheFirstInstanceAndTheFileIsReadOnce) {
  LoadElements("<LogLevel>3</LogLevel>");
  test::WriteFile(folder_.Path("LoggerSetting.xml"),
                  "<LoggerSetting><LogLevel>4</LogLevel></LoggerSetting>");
  LoggerSettingManager::Create();
  EXPECT_EQ(LoggerSettingManager::GetInstance()->GetLogLevel(), 3);
  LoggerSettingManager::Destroy();
  EXPECT_EQ(LoggerSettingManager::GetInstance(), nullptr);
}

}  // namespace
}  // namespace tmsc
