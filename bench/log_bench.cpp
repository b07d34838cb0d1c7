// One log call with its console echo, against spdlog's rotating file sink with a console sink
// beside it: time until the calls of all threads have returned, as medians of alternating rounds.
#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/descriptor.h"
#include "utility/file_util.h"

namespace {

using tmsc::Descriptor;

constexpr int kLines = 31 * 2000;
constexpr int kRounds = 21;
const std::string& kTag = tmsc::ConstantString("TCPUnit");
const std::string& kMessage =
    tmsc::ConstantString("<C1:17> recv[37] 0001000000230103200001000200030004000500060007");

/// Nanoseconds of one call, when so many threads share kLines calls.
double NanosecondsOfCall(int thread_count, const std::function<void()>& log) {
  std::atomic<int> waiting{thread_count};
  const int lines = kLines / thread_count;
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(thread_count));
  std::atomic<bool> is_started{false};
  for (int thread = 0; thread < thread_count; ++thread) {
    threads.emplace_back([&] {
      --waiting;
      while (!is_started) {
        std::this_thread::yield();
      }
      for (int line = 0; line < lines; ++line) {
        log();
      }
    });
  }
  while (waiting > 0) {
    std::this_thread::yield();
  }
  const auto start = std::chrono::steady_clock::now();
  is_started = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
  return taken.count() / (lines * thread_count);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double MeasureOurs(int thread_count) {
  tmsc::LoggerLog::Setup();
  const double time =
      NanosecondsOfCall(thread_count, [] { tmsc::LoggerLog::Info(kTag, kMessage); });
  tmsc::LoggerLog::Shutdown();
  return time;
}

double MeasureSpdlog(int thread_count, const std::string& path) {
  constexpr std::size_t kFileSize = std::size_t{1} << 30;
  auto file = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, kFileSize, 12);
  auto console = std::make_shared<spdlog::sinks::stdout_sink_mt>();
  spdlog::logger logger("bench", {file, console});
  logger.set_formatter(std::make_unique<spdlog::pattern_formatter>(
      "[%Y-%m-%d %H:%M:%S.%e UTC] [%L] %v", spdlog::pattern_time_type::utc));
  const std::string text = kTag + " " + kMessage;
  return NanosecondsOfCall(thread_count, [&] { logger.info(text); });
}

/// Standard output as `console` names it; a pipe is read by a child.
class Redirection {
 public:
  Redirection(const std::string& console, const std::string& folder)
      : saved_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    if (console == "pipe") {
      ReadByChild(folder + "/read");
      return;
    }
    const std::string path = console == "file" ? folder + "/console" : "/dev/null";
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ::dup2(file.Get(), STDOUT_FILENO);
  }
  ~Redirection() {
    ::dup2(saved_.Get(), STDOUT_FILENO);
    if (child_ > 0) {
      ::waitpid(child_, nullptr, 0);
    }
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  /// The child counts the daemon's lines, and leaves their number in a file.
  void ReadByChild(const std::string& result) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      std::perror("pipe");
      std::exit(1);
    }
    const Descriptor reading(ends[0]);
    const Descriptor writing(ends[1]);
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(reading.Get(), STDIN_FILENO);
      ::dup2(::open(result.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
      ::setenv("LC_ALL", "C", 1);
      ::execlp("grep", "grep", "-c", "^LoggerCom.log", nullptr);
      ::_exit(127);
    }
    ::dup2(writing.Get(), STDOUT_FILENO);
  }

  Descriptor saved_;
  pid_t child_ = -1;
};

void Measure(const std::string& console, int thread_count, const std::string& folder) {
  std::vector<double> ours;
  std::vector<double> theirs;
  std::vector<double> ratios;
  {
    const Redirection redirection(console, folder);
    for (int round = 0; round < kRounds; ++round) {
      ours.push_back(MeasureOurs(thread_count));
      theirs.push_back(MeasureSpdlog(thread_count, folder + "/spdlog"));
      ratios.push_back(ours.back() / theirs.back());
      std::filesystem::remove_all(folder + "/card");
      std::filesystem::remove(folder + "/spdlog");
    }
  }
  std::printf("%-9s %2d threads: %5.0f ns a call, spdlog %5.0f ns, ratio %.2f", console.c_str(),
              thread_count, Median(ours), Median(theirs), Median(ratios));
  if (console == "pipe") {
    int read = 0;
    std::ifstream(folder + "/read") >> read;
    std::printf(", %d of %d echoes read", read, kRounds * (kLines / thread_count) * thread_count);
  }
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace

int main() {
  std::string folder = (std::filesystem::temp_directory_path() / "tamsel-bench-XXXXXX").string();
  if (::mkdtemp(folder.data()) == nullptr) {
    std::perror("folder");
    return 1;
  }
  const std::string settings = folder + "/settings.xml";
  std::ofstream(settings) << "<LoggerSetting><SdcardPath>" << folder << "/card</SdcardPath>"
                          << "<LoggerComLogMaxFileSize>1023MB</LoggerComLogMaxFileSize>"
                          << "</LoggerSetting>\n";
  ::setenv(tmsc::kLoggerSettingFileVariable.c_str(), settings.c_str(), 1);
  tmsc::LoggerSettingManager::Create();
  tmsc::FileUtil::Create();
  for (const char* const console : {"/dev/null", "pipe", "file"}) {
    for (const int thread_count : {1, 8, 31}) {
      Measure(console, thread_count, folder);
    }
  }
  std::filesystem::remove_all(folder);
  return 0;
}
