#include "utility/deadline.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace tmsc {

int Deadline::RemainingMs() const {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(moment_ - Clock::now()).count();
  const decltype(left) longest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<decltype(+left)>(left, 0, longest));
}

int WaitForDescriptor(int descriptor, short events, const std::optional<Deadline>& deadline) {
  while (true) {
    pollfd entry{descriptor, events, 0};
    const int ready = ::poll(&entry, 1, deadline ? deadline->RemainingMs() : -1);
    if (ready >= 0 || errno != EINTR) {
      return ready;
    }
  }
}

}  // namespace tmsc
