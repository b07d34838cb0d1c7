#include <gtest/gtest.h>

#include <cstdio>

namespace {

/// Repeats each failed assertion on standard error: a test may have sent standard output elsewhere.
class FailuresOnStandardError : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.failed()) {
      std::fprintf(stderr, "%s:%d: %s\n", result.file_name() != nullptr ? result.file_name() : "?",
                   result.line_number(), result.message());
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new FailuresOnStandardError);
  return RUN_ALL_TESTS();
}
