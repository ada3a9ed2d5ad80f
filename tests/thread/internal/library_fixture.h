// The shared library fixture plus a request pool and a trace capture.
#ifndef ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H
#define ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H

#include "support/library_test.h"

namespace zktest {

class StartedLibrary : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zkInitializeRequest(16), 0);
        trace_.Clear();
    }
    // The trace texts since SetUp, one per call.
    std::vector<std::string> Lines() const { return trace_.Lines(); }

private:
    TraceCapture trace_;
};

} // namespace zktest

#endif // ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H
