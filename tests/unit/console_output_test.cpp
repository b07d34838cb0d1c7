#include "log/console_output.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <thread>

#include "support/console.h"
#include "support/wait.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {
namespace {

constexpr int kThreads = 4;
constexpr int kLines = 600;

std::string Line(int thread, int number) {
  const std::string filling(number % 50 == 0 ? 20000 : 1000, 'x');
  return std::to_string(thread) + " " + std::to_string(number) + " " + filling;
}

void LogFrom(int thread) {
  for (int number = 0; number < kLines; ++number) {
    const Stopwatch watch;
    ConsoleOutput::Get().Write({Line(thread, number), "\n"});
    EXPECT_LT(watch.Ms(), kSlackMs);
  }
}

/// Each line whole and in its thread's order, and all that are missing in the note.
void CheckLines(const std::string& text) {
  int next[kThreads] = {};
  int count = 0, lost = 0;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    int thread = 0, number = 0;
    if (std::sscanf(line.c_str(), "log lines lost on this console [%d]", &number) == 1) {
      lost += number;
    } else if (std::sscanf(line.c_str(), "%d %d", &thread, &number) == 2) {
      EXPECT_GE(number, std::exchange(next[thread], number + 1));
      EXPECT_EQ(line.substr(0, line.find('\r')), Line(thread, number));
      ++count;
    }
  }
  EXPECT_GT(count, 700) << "what 1 MiB holds";
  EXPECT_GT(lost, 0);
  EXPECT_EQ(count + lost, kThreads * kLines);
}

TEST(ConsoleOutput, ThatNobodyReadsHoldsNobodyUp) {
  // Each makes a reading and a writing end.
  int (*const consoles[])(int*) = {
      [](int* ends) { return ::openpty(ends, ends + 1, nullptr, nullptr, nullptr); },
      [](int* ends) { return ::pipe2(ends, O_CLOEXEC); },
      [](int* ends) { return ::pipe2(ends, O_CLOEXEC | O_NONBLOCK); },
      [](int* ends) { return ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends); },
      [](int* ends) { return ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends); }};
  for (const auto& make : consoles) {
    const auto kind = &make - consoles;
    SCOPED_TRACE(kind);
    int ends[2] = {-1, -1};
    ASSERT_EQ(make(ends), 0);
    const Descriptor reading(ends[0]);
    const int flags = ::fcntl(ends[1], F_GETFL);
    const Descriptor saved(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[1]);
    std::atomic<bool> is_read{false};
    std::string text;
    std::thread reader([&] {
      WaitFor(5000, [&] { return is_read.load(); });
      std::string buffer(64 * 1024, ' ');
      for (ssize_t size = 0; WaitForDescriptor(reading.Get(), POLLIN, std::nullopt) > 0 &&
                             (size = ::read(reading.Get(), buffer.data(), buffer.size())) > 0;) {
        text.append(buffer, 0, std::size_t(size));
        EXPECT_TRUE(kind < 4 || text.back() == '\n') << "a packet is a write: whole lines";
      }
    });
    std::vector<std::future<void>> calls;
    for (int thread = 0; thread < kThreads; ++thread) {
      calls.push_back(std::async(std::launch::async, LogFrom, thread));
    }
    calls.clear();
    const Stopwatch watch;
    EXPECT_FALSE(ConsoleOutput::Get().Drain(std::chrono::milliseconds(200)));
    EXPECT_LT(watch.Ms(), 200 + kSlackMs);
    EXPECT_EQ(::fcntl(STDOUT_FILENO, F_GETFL), flags);
    is_read = true;
    EXPECT_TRUE(ConsoleOutput::Get().Drain(std::chrono::seconds(10)));
    ::dup2(saved.Get(), STDOUT_FILENO);  // closes the last writing end
    reader.join();
    CheckLines(text);
  }
}

}  // namespace
}  // namespace tmsc::test
