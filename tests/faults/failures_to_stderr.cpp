// The suites of this directory and of tests/soak and tests/costs capture standard output and
// compare it line by line, so a failure printed there is lost in the capture: every failure
// is also reported on standard error. Linked into each of those programs.
#include <gtest/gtest.h>

#include <stdio.h>

namespace {

class FailuresToStderr : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult& r) override {
        if (r.failed())
            fprintf(stderr, "%s:%d: Failure\n%s\n", r.file_name() ? r.file_name() : "?", r.line_number(),
                    r.message());
    }
};

const bool g_installed = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new FailuresToStderr);
    return true;
}();

}  // namespace
