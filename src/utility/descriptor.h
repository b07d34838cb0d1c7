#ifndef TAMSEL_UTILITY_DESCRIPTOR_H_
#define TAMSEL_UTILITY_DESCRIPTOR_H_

#include <utility>

namespace tmsc {

/// Owns one file descriptor and closes it exactly once. -1 stands for none. Not for sharing between
/// threads.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : descriptor_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return descriptor_; }
  bool IsOpen() const { return descriptor_ >= 0; }

  /// Gives the descriptor away; the caller closes it.
  int Release() { return std::exchange(descriptor_, -1); }

  /// Closes the descriptor, if any, and takes the new one.
  void Reset(int descriptor = -1);

 private:
  int descriptor_ = -1;
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_DESCRIPTOR_H_
