#pragma once

#include "CChildProcess.h"

#include <mutex>
#include <string>
#include <vector>

/// A running StressServerProgram. Any thread, once it is made; it ends with the thread that made it.
class CStressServer
{
public:
    /// @param options  as the program takes them.
    CStressServer(std::string const& name, std::vector<std::string> const& options);

    pid_t GetPid() const { return m_process.GetPid(); }
    bool IsRunning();

    /// Steppers that live there, steps that came out of order, floods that have been sent; -1 if it does not answer.
    int CountObjects();
    int CountDisorder();
    int CountFloods();

    void Tell(std::string const& line);

    /// Tells it and waits for it to say the answer.
    bool TellAndWait(std::string const& line, std::string const& answer);

    /// What waitpid() said of its end within the limit; nothing if it still runs.
    std::optional<int> WaitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /// Ends it in good order. @return whether it did so by itself, with success.
    bool Stop();

    void Kill();

    /// Its fatal lines among all that it has said so far.
    std::vector<std::string> FatalLines();

private:
    int Ask(std::string const& what);
    std::optional<std::string> ReadLine(std::chrono::milliseconds limit);

    std::mutex m_mutex;
    CChildProcess m_process;
    std::vector<std::string> m_fatalLines;
};
