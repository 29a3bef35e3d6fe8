#include "CLogCapture.h"

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // A death test runs its statement in a process started afresh: the tests have threads, and a forked
    // copy of a process with threads may hang on a lock that no thread of its own will release.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::InitGoogleTest(&argc, argv);

    installStderrSink();
    return RUN_ALL_TESTS();
}
