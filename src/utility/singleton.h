#ifndef TAMSEL_UTILITY_SINGLETON_H_
#define TAMSEL_UTILITY_SINGLETON_H_

#include <atomic>

namespace tmsc {

/// Create / GetInstance / Destroy of the process-wide services. Nothing is created on first use:
/// main creates each service explicitly, in its order.
///
/// GetInstance may be called from any thread and from a signal handler. Create and Destroy are for
/// one thread at a time; Destroy is for moments when no other thread uses the instance.
template <typename T>
class Singleton {
 public:
  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;

  /// Makes the instance when there is none; keeps an existing one.
  template <typename... Arguments>
  static void Create(const Arguments&... arguments) {
    if (GetInstance() == nullptr) {
      p_instance_.store(new T(arguments...), std::memory_order_release);
    }
  }

  /// The instance; null before Create and after Destroy.
  static T* GetInstance() { return p_instance_.load(std::memory_order_acquire); }

  /// Deletes the instance if there is one.
  static void Destroy() { delete p_instance_.exchange(nullptr); }

 protected:
  Singleton() = default;
  ~Singleton() = default;

 private:
  static inline std::atomic<T*> p_instance_{nullptr};
  static_assert(std::atomic<T*>::is_always_lock_free, "GetInstance is called by signal handlers");
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_SINGLETON_H_
