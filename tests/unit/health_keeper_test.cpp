#include "health/health_keeper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>

#include "common/time_of_day.h"
#include "health_reader.h"
#include "support/log_fixture.h"
#include "support/shell.h"
#include "support/wait.h"

namespace tmsc::test {
namespace {

const HealthPlace kDevice{2, TAMSEL_HEALTH_TCPIP, 17, "192.0.2.17", 502};

/// Reports `count` exchanges of the device that ended without an answer.
void Report(int count) {
  for (int i = 0; i < count; ++i) {
    HealthKeeper::ReportExchange(kDevice, {TAMSEL_CAUSE_NO_ANSWER});
  }
}

/// The file is whole and holds the device with so many exchanges.
void ExpectWhole(const std::string& path, std::uint32_t exchanges, const std::string& what) {
  const HealthReading reading = ReadHealth(path);
  ASSERT_TRUE(reading.snapshot) << what << ": " << reading.error;
  EXPECT_EQ(reading.snapshot->damaged_records, 0) << what;
  EXPECT_EQ(std::filesystem::file_size(path), sizeof(tamsel_health_file)) << what;
  ASSERT_EQ(reading.snapshot->devices.size(), 1u) << what;
  EXPECT_EQ(reading.snapshot->devices[0].exchanges, exchanges) << what;
  EXPECT_EQ(reading.snapshot->process.pid, static_cast<std::uint32_t>(::getpid())) << what;
}

/// Puts the bytes of a record from `begin` to `end` into the place of the device with `address`.
void PutRecord(const std::string& path, int address, const tamsel_health_device& record,
               std::size_t begin = 0, std::size_t end = sizeof(tamsel_health_device)) {
  const std::size_t offset =
      offsetof(tamsel_health_file, devices) +
      sizeof(record) * tamsel_health_device_index(2, TAMSEL_HEALTH_TCPIP, address);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset + begin));
  file.write(reinterpret_cast<const char*>(&record) + begin,
             static_cast<std::streamsize>(end - begin));
}

// On a file system in memory and, where the temporary folder is none, on a card, where the keeper's
// thread does the writing.
TEST(HealthKeeper, MendsWhateverIsDoneToTheFile) {
  for (const char* const root : {"/dev/shm", "/tmp"}) {
    const TempFolder folder(root);
    const std::string path = folder.Path("run/health");
    const auto do_harm = [&](const std::string& harm) {
      const auto run =
          RunShell("env D=" + folder.Path("run") + " H=" + path + " sh -c '" + harm + "'");
      ASSERT_EQ(run.exit_code, 0) << harm << ": " << run.output;
    };
    Singleton<HealthKeeper>::Create(path);
    std::uint32_t exchanges = 0;
    for (const char* const harm :
         {"true", "rm $H", "truncate -s 0 $H", "truncate -s 300 $H", "truncate -s 1M $H",
          "rm -r $D", "cp $H $H.new; mv $H.new $H",
          "dd if=/dev/zero of=$H bs=1 seek=8 count=4 conv=notrunc",
          "dd if=/dev/urandom of=$H bs=1000 seek=1 conv=notrunc count=118"}) {
      do_harm(harm);
      Report(1);
      HealthKeeper::GetInstance()->Inspect();
      ExpectWhole(path, ++exchanges, harm);
    }
    // What cannot be taken over stays as it is until it is gone.
    for (const char* const harm :
         {"mkdir $H", "mkfifo $H", "echo something else > $H", "ln -s /dev/full $H",
          "ln -s /proc/nowhere/x $H", "truncate -s 96257 $H",
          "head -c 8 /dev/zero > $H; echo something else >> $H"}) {
      do_harm(std::string("rm -r $H; ") + harm);
      const Stopwatch time;
      Report(1);
      HealthKeeper::GetInstance()->Inspect();
      EXPECT_LT(time.Ms(), kSlackMs) << harm;
      EXPECT_NE(ReadHealth(path).error, "") << harm;
      do_harm("rm -r $H");
      HealthKeeper::GetInstance()->Inspect();
      ExpectWhole(path, ++exchanges, harm);
    }
    // A second keeper leaves a file in use alone; a later one goes on with it.
    { const HealthKeeper second(path); }
    ExpectWhole(path, exchanges, "second");
    EXPECT_EQ(ReadHealth(path).snapshot->process.starts, 1u) << "the second one took it over";
    Singleton<HealthKeeper>::Destroy();
    Singleton<HealthKeeper>::Create(path);
    Report(1);
    HealthKeeper::GetInstance()->Inspect();
    ExpectWhole(path, exchanges + 1, "restart");
    EXPECT_EQ(ReadHealth(path).snapshot->process.starts, 2u);
    Singleton<HealthKeeper>::Destroy();
    // What the end of the power may leave of one is no obstacle.
    for (const char* const harm : {"truncate -s 5 $H", "truncate -s 0 $H; truncate -s 96256 $H"}) {
      do_harm(harm);
      Singleton<HealthKeeper>::Create(path);
      Report(1);
      HealthKeeper::GetInstance()->Inspect();
      ExpectWhole(path, 1, harm);
      Singleton<HealthKeeper>::Destroy();
    }
  }
}

TEST(HealthKeeper, KeepsTheHoursThatAreStillValid) {
  const TempFolder folder;
  const std::string path = folder.Path("health");
  const auto now = static_cast<std::uint32_t>(MicrosecondsSinceEpoch() / 3600000000LL);
  // The newest hour of the file is so many hours before now, and every cell says 1.
  for (const auto& [age, kept] :
       {std::pair(0, 48), {1, 47}, {47, 1}, {48, 0}, {500, 0}, {-5, 48}, {-48, 0}}) {
    Singleton<HealthKeeper>::Create(path);
    Report(1);
    HealthKeeper::GetInstance()->Inspect();
    Singleton<HealthKeeper>::Destroy();
    tamsel_health_device device = ReadHealth(path).snapshot->devices[0];
    device.newest_hour = now - static_cast<std::uint32_t>(age);
    std::fill(std::begin(device.hours), std::end(device.hours), tamsel_health_hour{1, 0});
    device.checksum = tamsel_health_checksum(&device, sizeof(device));
    PutRecord(path, 17, device);
    PutRecord(path, 18, device);  // where it does not belong

    Singleton<HealthKeeper>::Create(path);
    Report(1);
    HealthKeeper::GetInstance()->Inspect();
    Singleton<HealthKeeper>::Destroy();
    EXPECT_EQ(ReadHealth(path).snapshot->devices.size(), 1u);
    device = ReadHealth(path).snapshot->devices[0];
    const auto old = std::count_if(std::begin(device.hours), std::end(device.hours),
                                   [](const auto& cell) { return cell.answered == 1; });
    EXPECT_EQ(old, kept) << age;
    EXPECT_EQ(device.hours[now % TAMSEL_HEALTH_HOURS].failed, 1u) << age;
    ::unlink(path.c_str());
  }
}

TEST(HealthKeeper, MomentsOfTheFileAreTakenOverAsFarAsThereCanBeAny) {
  const TempFolder folder;
  const std::string path = folder.Path("health");
  const auto put = [&](std::int64_t moment_ms, std::uint32_t hour) {
    Singleton<HealthKeeper>::Create(path);
    Report(1);
    HealthKeeper::GetInstance()->Inspect();
    Singleton<HealthKeeper>::Destroy();
    tamsel_health_device device = ReadHealth(path).snapshot->devices[0];
    device.first_ms = device.last_answer_ms = device.failing_since_ms = moment_ms;
    device.newest_hour = hour;
    device.checksum = tamsel_health_checksum(&device, sizeof(device));
    PutRecord(path, 17, device);
    Singleton<HealthKeeper>::Create(path);
    HealthKeeper::GetInstance()->Inspect();
    Report(1);
    HealthKeeper::GetInstance()->Inspect();
    Singleton<HealthKeeper>::Destroy();
    return ReadHealth(path).snapshot->devices[0];
  };
  for (const std::int64_t moment_ms : {INT64_MIN, std::int64_t{-1}, INT64_MAX}) {
    const tamsel_health_device device = put(moment_ms, UINT32_MAX);
    for (const std::int64_t taken : {device.first_ms, device.last_answer_ms}) {
      EXPECT_EQ(taken, std::max<std::int64_t>(moment_ms, 0));
    }
  }
}

TEST(HealthKeeper, TheIntervalIsTheLongestUsualOneOfALife) {
  const TempFolder folder;
  const std::string path = folder.Path("health");
  const auto interval_ms = [&] {
    HealthKeeper::GetInstance()->Inspect();
    return ReadHealth(path).snapshot->devices[0].interval_ms;
  };
  Singleton<HealthKeeper>::Create(path);
  Report(1);
  EXPECT_EQ(interval_ms(), 0u);
  SleepMs(300);
  Report(1);
  const std::uint32_t longest = interval_ms();
  EXPECT_GE(longest, 300u);
  Report(10);  // a burst
  EXPECT_LT(interval_ms(), longest);
  EXPECT_GT(interval_ms(), longest / 2);
  const std::uint32_t usual = interval_ms();
  Singleton<HealthKeeper>::Destroy();
  SleepMs(static_cast<int>(longest));
  Singleton<HealthKeeper>::Create(path);
  Report(1);
  EXPECT_EQ(interval_ms(), usual) << "a time without a daemon";
  Report(600);
  EXPECT_LT(interval_ms(), longest / 4);
  Singleton<HealthKeeper>::Destroy();
}

class HealthSettings : public LogFixture {};

TEST_F(HealthSettings, AFileOfTheDaemonsOwnIsNoHealthFileByWhateverPath) {
  StartLog();
  std::filesystem::create_directories(folder_.Path("card/velmorahome/Log"));
  std::filesystem::create_directory(folder_.Path("check"));
  std::filesystem::create_symlink(folder_.Path("card/velmorahome"), folder_.Path("link"));
  for (const char* const path :
       {"card/velmorahome/Log/LoggerCom.log", "card/velmorahome/Log//LoggerCom.log",
        "card/./velmorahome/Log/LoggerCom.log.1", "link/Log/LoggerCom.log",
        "link/none/../Log/loggercom.LOG", "check//tmsc", "check/../socket", "/LoggerSetting.xml"}) {
    UseSettings({{"HealthFilePath", folder_.Path(path)}});
    HealthKeeper::Create();
    EXPECT_EQ(HealthKeeper::GetInstance(), nullptr) << path;
    Singleton<HealthKeeper>::Destroy();
  }
  UseSettings({{"HealthFilePath", folder_.Path("link/LoggerCom.log")}});
  HealthKeeper::Create();
  EXPECT_NE(HealthKeeper::GetInstance(), nullptr) << "beside the log's folder";
  Singleton<HealthKeeper>::Destroy();
  EXPECT_EQ(CountText(StopLog(), "the daemon's own for other use"), 8);
}

TEST(HealthKeeper, AReaderMeetsARecordHalfWrittenAndReadsItAgain) {
  const TempFolder folder;
  const std::string path = folder.Path("health");
  Singleton<HealthKeeper>::Create(path);
  Report(1);
  HealthKeeper::GetInstance()->Inspect();
  const tamsel_health_device one = ReadHealth(path).snapshot->devices[0];
  Report(1);
  HealthKeeper::GetInstance()->Inspect();
  const tamsel_health_device two = ReadHealth(path).snapshot->devices[0];
  Singleton<HealthKeeper>::Destroy();
  std::atomic<bool> is_over{false};
  auto reader = std::async(std::launch::async, [&] {
    int damaged = 0;
    while (!is_over) {
      damaged += ReadHealth(path).snapshot->damaged_records;
    }
    return damaged;
  });
  for (int i = 0; i < 3000; ++i) {
    const tamsel_health_device& next = i % 2 == 0 ? one : two;
    PutRecord(path, 17, next, 0, sizeof(next) / 2);
    PutRecord(path, 17, next, sizeof(next) / 2);
  }
  is_over = true;
  EXPECT_EQ(reader.get(), 0);
}

}  // namespace
}  // namespace tmsc::test
