#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// A program that a test runs and talks to, line by line, over the program's standard input and output.
///
/// It ends with this object, at the latest with the test process (it is sent SIGKILL then). Its standard
/// error is the test's. Start it on the main thread; every function is for one thread at a time.
class CChildProcess
{
public:
    /// @param command  path of the program and its arguments.
    explicit CChildProcess(std::vector<std::string> const& command);

    /// Kills the program if it still runs.
    ~CChildProcess();

    CChildProcess(CChildProcess const&) = delete;
    CChildProcess& operator=(CChildProcess const&) = delete;

    pid_t GetPid() const { return m_pid; }

    /// Sends a line to the program; false if it does not read any more.
    bool WriteLine(std::string const& line);

    /// The program's standard input ends.
    void CloseInput();

    /// The next line, without its end; nothing at the end of the output or after the limit.
    std::optional<std::string> ReadLine(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /// Drops lines until one is exactly this; false at the end of the output or after the limit.
    bool WaitForLine(std::string const& line, std::chrono::milliseconds limit = std::chrono::seconds(30));

    /// Sends the signal, without waiting for what it does.
    void Signal(int signal);

    /// Waits for the end. @return the status as waitpid() gives it, or nothing when the limit passed first.
    std::optional<int> Wait(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /// SIGKILL and the wait for the end.
    void Kill();

    bool IsRunning();

private:
    pid_t m_pid = -1;
    int m_fd = -1;
    std::string m_unread;
    std::optional<int> m_status;
};
