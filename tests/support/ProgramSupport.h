#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

/// What the programs that the tests start have in common.

/// Writes a line to standard output for the test to read. Any thread.
void say(std::string const& line);

/// Sends the library's error and fatal lines to standard error, where the test's output shows them.
void sendErrorsToStderr();

/// For a program with a sink of its own that kills workers: tells the leak checker about kills. Called with each line.
void noteKill(std::string const& line);

/// Keeps the calling thread busy without ever reaching a cancellation point.
///
/// Out of line and with nothing of its own to destroy: unwinding ends the process when it starts from an instruction
/// that the compiler did not expect to throw, in a function that has something to destroy.
[[noreturn]] void spinForEver();

/// A door that is opened from outside for all who wait at it, each time for as many as stand there.
class CDoor
{
public:
    /// Says "blocked" once a release cannot be missed any more. Every wait has a bound, so that no program outlives
    /// its test by much.
    void Wait();
    void Release();

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_round = 0;
};
