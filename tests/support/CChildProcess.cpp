#include "CChildProcess.h"

#include "Eventually.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

/// Everything it needs is prepared by the caller: between fork and exec it may only make system calls.
[[noreturn]] void becomeProgram(int fd, char* const* arguments, pid_t parent)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
    {
        ::_exit(127); // the parent died before the line above
    }
    ::dup2(fd, STDIN_FILENO);
    ::dup2(fd, STDOUT_FILENO);
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

int millisecondsUntil(steady_clock::time_point end)
{
    auto const left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
    return left > 0 ? static_cast<int>(left) + 1 : 0;
}

} // namespace

CChildProcess::CChildProcess(std::vector<std::string> const& command)
{
    std::vector<char*> arguments;
    for (std::string const& argument : command)
    {
        arguments.push_back(const_cast<char*>(argument.c_str())); // execv() promises not to write to them
    }
    arguments.push_back(nullptr);

    // A socket and not two pipes: writing to a program that has ended is then an error instead of a signal.
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    {
        ADD_FAILURE() << "socketpair: " << std::strerror(errno);
        return;
    }
    pid_t const self = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0)
    {
        becomeProgram(ends[1], arguments.data(), self);
    }
    if (m_pid == -1)
    {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
    }
    ::close(ends[1]);
    m_fd = ends[0];
}

CChildProcess::~CChildProcess()
{
    Kill();
    if (m_fd != -1)
    {
        ::close(m_fd);
    }
}

bool CChildProcess::WriteLine(std::string const& line)
{
    std::string const whole = line + "\n";
    for (std::size_t sent = 0; sent < whole.size();)
    {
        ssize_t const n = ::send(m_fd, whole.data() + sent, whole.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
        {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

void CChildProcess::CloseInput()
{
    ::shutdown(m_fd, SHUT_WR);
}

std::optional<std::string> CChildProcess::ReadLine(milliseconds limit)
{
    auto const end = steady_clock::now() + limit;
    for (;;)
    {
        auto const newline = m_unread.find('\n');
        if (newline != std::string::npos)
        {
            std::string const line = m_unread.substr(0, newline);
            m_unread.erase(0, newline + 1);
            return line;
        }

        pollfd readable{m_fd, POLLIN, 0};
        if (::poll(&readable, 1, millisecondsUntil(end)) <= 0)
        {
            return std::nullopt;
        }
        char buffer[4096];
        ssize_t const n = ::read(m_fd, buffer, sizeof(buffer));
        if (n <= 0)
        {
            return std::nullopt;
        }
        m_unread.append(buffer, static_cast<std::size_t>(n));
    }
}

bool CChildProcess::WaitForLine(std::string const& line, milliseconds limit)
{
    auto const end = steady_clock::now() + limit;
    for (;;)
    {
        std::optional<std::string> const read = ReadLine(milliseconds(millisecondsUntil(end)));
        if (!read)
        {
            return false;
        }
        if (*read == line)
        {
            return true;
        }
    }
}

void CChildProcess::Signal(int signal)
{
    if (m_pid > 0 && !m_status)
    {
        ::kill(m_pid, signal);
    }
}

std::optional<int> CChildProcess::Wait(milliseconds limit)
{
    if (m_pid <= 0)
    {
        return std::nullopt;
    }
    eventually(
        [&] {
            int status = 0;
            if (!m_status && ::waitpid(m_pid, &status, WNOHANG) == m_pid)
            {
                m_status = status;
            }
            return m_status.has_value();
        },
        limit);
    return m_status;
}

void CChildProcess::Kill()
{
    Signal(SIGKILL);
    Wait();
}

bool CChildProcess::IsRunning()
{
    return m_pid > 0 && !Wait(milliseconds(0));
}
