#include "logger_setting/logger_setting_manager.h"

#include <sys/stat.h>

#include "log/log_text.h"
#include "support/log_fixture.h"

namespace tmsc {
namespace {

using Manager = LoggerSettingManager;
using LoggerSettingManagerTest = test::LogFixture;

std::string All(Manager& m) {
  return LogText(m.GetComSocketPath(), " ", m.GetTamselComWatchdogPath(), " ", m.GetLogDirectory(),
                 " ", m.GetMaxLogFileSize(), " ", m.GetMaxLogRollIndex(), " ",
                 m.GetWatchdogFileUpdateInterval(), " ", m.GetTamselComStartComFailedCloseCount(),
                 " ", m.IsEnableLogBufferedIO(), " ", m.GetLogLevel(), " ",
                 m.GetLoggerLogMaxBufferdSize(), " ", m.GetMWApiRetryCount(), " ",
                 m.GetMWApiRetryInterval(), " ", m.GetTcpDrainTimeout().value_or(-7), " ",
                 m.IsTcpReuseCheck(), " ", m.GetRs485StartWait());
}

TEST_F(LoggerSettingManagerTest, DefaultsHoldWithoutAUsableFile) {
  std::string deep = "<LoggerSetting><LogLevel>3</LogLevel>";
  for (int i = 0; i < 600; ++i) {
    deep += i < 300 ? "<a>" : "</a>";
  }
  for (const std::string& xml :
       {std::string(), std::string("<LoggerSetting><LogLevel>3"),
        std::string("<Other><LogLevel>3</LogLevel></Other>"), deep + "</LoggerSetting>"}) {
    EXPECT_EQ(All(UseSettingFile(xml)),
              "/mnt/system/tmscom/tamsel.com /mnt/system/check/tmsc "
              "/media/sdcard/velmorahome/Log 500KB 12 30 100 1 1 4096 3 100 -7 0 200")
        << xml;
  }
}

TEST_F(LoggerSettingManagerTest, ElementsBecomeSettings) {
  EXPECT_EQ(
      All(UseSettingFile(
          "<?xml version=\"1.0\"?>\n<LoggerSetting>\n<!-- level --><LogLevel unit=\"x\"> 2 "
          "</LogLevel><SdcardPath>/mnt/a&amp;b </SdcardPath><ComSocketPath></ComSocketPath>"
          "<ApiRetryCount>1</ApiRetryCount><ApiRetryCount>7</ApiRetryCount><loglevel>5</loglevel>"
          "<ApiRetryInterval>5<sub>9</sub></ApiRetryInterval><LoggerComLogMaxFileSize>1<!-- c "
          "-->2<![CDATA[3]]></LoggerComLogMaxFileSize><TcpDrainTimeout>0</TcpDrainTimeout>"
          "<TcpReuseCheck>1</TcpReuseCheck></LoggerSetting>")),
      " /mnt/system/check/tmsc /mnt/a&b /velmorahome/Log 2 12 30 100 1 2 4096 7 5 0 1 200");
}

TEST_F(LoggerSettingManagerTest, NumbersFallBack) {
  using Values = std::vector<std::pair<const char*, int>>;
  const std::tuple<const char*, std::function<int(Manager&)>, Values> rows[] = {
      {"WatchdogFileUpdateInterval",
       &Manager::GetWatchdogFileUpdateInterval,
       {{"abc", 30}, {" 45", 45}, {"45sec", 45}, {"99999999999", 30}, {"-5", -5}, {"", 30}}},
      {"TamselComStartComFailedCloseCount",
       &Manager::GetTamselComStartComFailedCloseCount,
       {{"1000", 1000}, {"1001", 100}, {"0", 100}, {"1", 1}}},
      {"Rs485StartWait", &Manager::GetRs485StartWait, {{"-1", 200}, {"0", 0}}},
      {"EnableLogBufferedIO", &Manager::IsEnableLogBufferedIO, {{"0", 0}, {"2", 1}, {"", 1}}},
  };
  for (const auto& [key, get, values] : rows) {
    for (const auto& [text, value] : values) {
      EXPECT_EQ(get(UseSettings({{key, text}})), value) << key << " " << text;
    }
  }
}

TEST_F(LoggerSettingManagerTest, AnyEncodingAndLengthIsRead) {
  for (const std::string encoding : {"Shift_JIS", "none-such", "ISO-8859-1", "UTF-8"}) {
    const std::string path = encoding == "ISO-8859-1" ? "\xe4" : "\xc3\xa4";
    Manager& settings = UseSettingFile("<?xml version=\"1.0\" encoding=\"" + encoding +
                                       "\"?><LoggerSetting><!--" + std::string(200000, 'x') +
                                       "--><SdcardPath>" + path + "</SdcardPath></LoggerSetting>");
    EXPECT_EQ(settings.GetLogDirectory(), "\xc3\xa4/velmorahome/Log") << encoding;
  }
}

TEST_F(LoggerSettingManagerTest, ARegularFileIsReadOnce) {
  UseSettings({{"LogLevel", "3"}});
  const std::string pipe = folder_.Path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  ::setenv(kLoggerSettingFileVariable.c_str(), pipe.c_str(), 1);
  Manager::Create();
  EXPECT_EQ(Manager::GetInstance()->GetLogLevel(), 3) << "the first instance stays";
  Manager::Destroy();
  EXPECT_EQ(Manager::GetInstance(), nullptr);
  Manager::Create();  // a pipe without a writer would hold it for ever
  EXPECT_EQ(Manager::GetInstance()->GetLogLevel(), 1);
}

}  // namespace
}  // namespace tmsc
