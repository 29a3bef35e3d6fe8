#include <nelo_rpc/testing/CPrivateBus.h>

#include "BusConfig.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace nelo_rpc::test
{

namespace
{

/// A descriptor for one scope.
class CFd
{
public:
    explicit CFd(int fd) : m_fd(fd) {}
    CFd(CFd const&) = delete;
    CFd& operator=(CFd const&) = delete;
    ~CFd() { Close(); }

    int Get() const { return m_fd; }
    void Close()
    {
        if (m_fd != -1)
        {
            ::close(m_fd);
            m_fd = -1;
        }
    }

private:
    int m_fd;
};

void complain(char const* what)
{
    std::cerr << "CPrivateBus: " << what << ": " << std::strerror(errno) << std::endl;
}

/// A file without a name: several processes may start a bus at once, and none leaves anything behind. It stays open
/// when the daemon is executed, which reads it as a file of its own descriptors.
int makeFile(std::string const& content)
{
    int const fd = ::memfd_create("bus.conf", 0);
    auto const size = static_cast<ssize_t>(content.size());
    if (fd != -1 && ::write(fd, content.data(), content.size()) != size)
    {
        ::close(fd);
        return -1;
    }
    return fd;
}

/// Everything it needs is prepared by the caller: between fork and exec it may only make system calls.
[[noreturn]] void becomeDaemon(char const* configOption, int output, pid_t parent, char const* addressOption)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
    {
        ::_exit(127); // the parent died before the line above
    }
    ::dup2(output, STDOUT_FILENO);
    ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--print-address=1", configOption, addressOption,
             static_cast<char*>(nullptr));
    ::_exit(127);
}

std::string readLine(int fd)
{
    std::string line;
    for (char c = 0; ::read(fd, &c, 1) == 1 && c != '\n';)
    {
        line += c;
    }
    return line;
}

/// Without the daemon's own id, which a client insists on: it would refuse the next daemon at this address.
std::string withoutGuid(std::string const& address)
{
    return address.substr(0, address.find(",guid="));
}

} // namespace

CPrivateBus::CPrivateBus(std::string const& config) : m_config(config), m_pid(-1)
{
    if (Start())
    {
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    }
}

CPrivateBus::~CPrivateBus()
{
    End(SIGTERM);
}

std::string const& CPrivateBus::GetDefaultConfig()
{
    static std::string const config = BUS_CONFIG;
    return config;
}

bool CPrivateBus::IsRunning() const
{
    return m_pid > 0;
}

std::string const& CPrivateBus::GetAddress() const
{
    return m_address;
}

bool CPrivateBus::Start()
{
    End(SIGTERM);
    CFd const config(makeFile(m_config));
    int ends[2];
    if (config.Get() == -1 || ::pipe2(ends, O_CLOEXEC) != 0)
    {
        complain("no file for the daemon");
        return false;
    }
    CFd const reading(ends[0]);
    CFd writing(ends[1]);

    std::string const configOption = "--config-file=/proc/self/fd/" + std::to_string(config.Get());
    std::string const option = "--address=" + m_address;
    char const* const again = m_address.empty() ? nullptr : option.c_str();
    pid_t const self = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0)
    {
        becomeDaemon(configOption.c_str(), writing.Get(), self, again);
    }
    if (m_pid == -1)
    {
        complain("fork");
        return false;
    }
    writing.Close();

    // The daemon prints its address once it listens, so reading the line is the wait for it.
    std::string const line = readLine(reading.Get());
    if (line.empty())
    {
        std::cerr << "CPrivateBus: dbus-daemon did not start; is it installed, and is its configuration right?"
                  << std::endl;
        End(SIGTERM);
        return false;
    }
    m_address = withoutGuid(line);
    return true;
}

void CPrivateBus::Kill()
{
    End(SIGKILL);
}

void CPrivateBus::End(int signal)
{
    if (m_pid <= 0)
    {
        return;
    }
    ::kill(m_pid, signal);
    ::kill(m_pid, SIGCONT); // in case it is suspended
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

bool CPrivateBus::Suspend()
{
    // Stopping is not done when kill() returns; the state change is what says so.
    int status = 0;
    return m_pid > 0 && ::kill(m_pid, SIGSTOP) == 0 && ::waitpid(m_pid, &status, WUNTRACED) == m_pid &&
           WIFSTOPPED(status);
}

bool CPrivateBus::Resume()
{
    return m_pid > 0 && ::kill(m_pid, SIGCONT) == 0;
}

std::string CPrivateBus::UniqueName()
{
    static std::atomic<int> last{0};
    return "org.trelin.nelo_rpc.test.Peer" + std::to_string(++last);
}

} // namespace nelo_rpc::test
