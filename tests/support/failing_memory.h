#ifndef TAMSEL_TESTS_SUPPORT_FAILING_MEMORY_H_
#define TAMSEL_TESTS_SUPPORT_FAILING_MEMORY_H_

namespace tmsc::test {

/// Makes the allocations `first` to `last`, counted from now on over all threads that are not
/// exempt, throw std::bad_alloc. With 0 none does. The caller's thread is exempt from then on.
/// Returns whether one failed since the call before.
bool FailAllocations(int first, int last);

/// For threads that play the outside world.
void ExemptThisThread();

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_FAILING_MEMORY_H_
