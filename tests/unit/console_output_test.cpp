#include "log/console_output.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "support/log_fixture.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {
namespace {

constexpr int kThreads = 4, kLines = 600;

std::string Line(int thread, int number) {
  const std::string filling(number % 50 == 0 ? 20000 : 1000, 'x');
  return std::to_string(thread) + " " + std::to_string(number) + " " + filling;
}

/// Each line whole and in its thread's order, and all that are missing in the note.
void CheckLines(const std::string& text) {
  int next[kThreads] = {}, count = 0, lost = 0;
  for (const std::string& line : Lines(text)) {
    int thread = 0, number = 0;
    if (std::sscanf(line.c_str(), "log lines lost on this console [%d]", &number) == 1) {
      lost += number;
    } else if (std::sscanf(line.c_str(), "%d %d", &thread, &number) == 2) {
      EXPECT_GE(number, std::exchange(next[thread], number + 1));
      EXPECT_EQ(line.substr(0, line.find('\r')), Line(thread, number));
      ++count;
    }
  }
  EXPECT_NEAR(count, 1225, 525) << "what 1 MiB holds, or 2 when as much was just being written";
  EXPECT_EQ(count + lost, kThreads * kLines);
}

TEST(ConsoleOutput, ThatNobodyReadsHoldsNobodyUp) {
  // Each makes a reading and a writing end.
  int (*const consoles[])(int*) = {
      [](int* ends) { return ::openpty(ends, ends + 1, nullptr, nullptr, nullptr); },
      [](int* ends) { return ::pipe(ends) + ::fcntl(ends[1], F_SETFL, O_NONBLOCK); },
      [](int* ends) { return ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends); }};
  for (const auto& make : consoles) {
    SCOPED_TRACE(&make - consoles);
    int ends[2] = {-1, -1};
    ASSERT_EQ(make(ends), 0);
    const Descriptor reading(ends[0]), saved(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    const int flags = ::fcntl(ends[1], F_GETFL);
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[1]);
    std::vector<std::future<void>> calls;
    for (int thread = 0; thread < kThreads; ++thread) {
      calls.push_back(std::async(std::launch::async, [thread] {
        for (int number = 0; number < kLines; ++number) {
          const Stopwatch watch;
          ConsoleOutput::Get().Write({Line(thread, number), "\n"});
          EXPECT_LT(watch.Ms(), kSlackMs);
        }
      }));
    }
    calls.clear();
    const Stopwatch watch;
    EXPECT_FALSE(ConsoleOutput::Get().Drain(std::chrono::milliseconds(200)));
    EXPECT_LT(watch.Ms(), 200 + kSlackMs);
    EXPECT_EQ(::fcntl(STDOUT_FILENO, F_GETFL), flags);
    const auto drained = std::async(std::launch::async, [&saved] {
      EXPECT_TRUE(ConsoleOutput::Get().Drain(std::chrono::seconds(10)));
      ::dup2(saved.Get(), STDOUT_FILENO);  // closes the last writing end
    });
    bool is_whole = true;  // told when the console is not full any more
    std::string text, buffer(24 * 1024, ' ');
    for (ssize_t size = 0;
         WaitForDescriptor(ends[0], POLLIN, Deadline(std::chrono::seconds(5))) > 0 &&
         (size = ::read(ends[0], buffer.data(), buffer.size())) > 0;) {
      text.append(buffer, 0, std::size_t(size));
      is_whole = is_whole && text.back() == '\n';
    }
    EXPECT_TRUE(is_whole || make != consoles[2]) << "a packet is a write: whole lines";
    CheckLines(text);
  }
}

}  // namespace
}  // namespace tmsc::test
