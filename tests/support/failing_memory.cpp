#include "support/failing_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> first_failing{0};
std::atomic<int> last_failing{0};
std::atomic<int> allocation_count{0};
thread_local bool is_exempt = false;

}  // namespace

void* operator new(std::size_t size) {
  const int number = is_exempt ? -1 : ++allocation_count;
  const bool is_to_fail = number >= first_failing && number <= last_failing;
  void* const memory = is_to_fail ? nullptr : std::malloc(size > 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

/// What the leak check is not to report. The library's queue loses the entry of a wait when memory
/// ends between the two allocations of that wait.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:Poco::NotificationQueue::waitDequeueNotification\n";
}

namespace tmsc::test {

bool FailAllocations(int first, int last) {
  is_exempt = true;
  const bool has_failed = allocation_count >= first_failing;
  last_failing = 0;
  first_failing = first;
  allocation_count = 0;
  last_failing = last;
  return has_failed;
}

void ExemptThisThread() {
  is_exempt = true;
}

}  // namespace tmsc::test
