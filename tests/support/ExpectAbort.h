#pragma once

#include <gtest/gtest.h>

#include <csignal>

/// The statement must end the process by abort(), after a line on stderr that matches the pattern.
/// Stricter than EXPECT_DEATH, which a segmentation fault would satisfy.
#define EXPECT_ABORT(statement, pattern) EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), pattern)
