#ifndef TAMSEL_TESTS_SUPPORT_WAIT_H_
#define TAMSEL_TESTS_SUPPORT_WAIT_H_

#include <chrono>
#include <functional>
#include <thread>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAMSEL_TEST_SANITIZED 1
#else
#define TAMSEL_TEST_SANITIZED 0
#endif

namespace tmsc::test {

/// What a bound on a time may exceed the program's own figure by: on a machine with other work, and
/// under a sanitizer.
constexpr int kSlackMs = TAMSEL_TEST_SANITIZED ? 1500 : 500;

inline void SleepMs(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// Milliseconds since the object was made.
class Stopwatch {
 public:
  int Ms() const {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin_)
                                .count());
  }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

/// Asks every 5 ms until the condition holds; false when it does not within `limit_ms`.
inline bool WaitFor(int limit_ms, const std::function<bool()>& condition) {
  const Stopwatch watch;
  while (!condition()) {
    if (watch.Ms() >= limit_ms) {
      return false;
    }
    SleepMs(5);
  }
  return true;
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_WAIT_H_
