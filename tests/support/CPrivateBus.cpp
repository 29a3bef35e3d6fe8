#include "CPrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

namespace
{

struct SDaemon
{
    pid_t pid = -1;
    std::string address;
};

SDaemon& daemonOfThisProcess()
{
    static SDaemon daemon;
    return daemon;
}

/// Everything the child needs is prepared by the caller: between fork and exec it may only make system calls.
[[noreturn]] void becomeDaemon(int output, char const* addressOption)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // a crashed test leaves no daemon behind
    ::dup2(output, STDOUT_FILENO);
    ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
             "--config-file=" NELO_RPC_TEST_BUS_CONF, addressOption, static_cast<char*>(nullptr));
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

void start(SDaemon& daemon)
{
    int address[2];
    ASSERT_EQ(0, ::pipe2(address, O_CLOEXEC));

    std::string const option = "--address=" + daemon.address;
    char const* const again = daemon.address.empty() ? nullptr : option.c_str();
    daemon.pid = ::fork();
    ASSERT_NE(-1, daemon.pid);
    if (daemon.pid == 0)
    {
        becomeDaemon(address[1], again);
    }
    ::close(address[1]);

    // The daemon prints its address once it listens, so reading the line is the wait for it.
    std::string const line = readLine(address[0]);
    ::close(address[0]);
    ASSERT_FALSE(line.empty()) << "dbus-daemon did not start";
    daemon.address = withoutGuid(line);
}

void end(SDaemon& daemon, int signal)
{
    if (daemon.pid <= 0)
    {
        return;
    }
    ::kill(daemon.pid, signal);
    ::kill(daemon.pid, SIGCONT); // in case a failed test left it suspended
    ::waitpid(daemon.pid, nullptr, 0);
    daemon.pid = -1;
}

// Before main, so that no test has to remember it. The tests' framework owns and deletes it.
::testing::Environment* const g_registration = ::testing::AddGlobalTestEnvironment(new CPrivateBus);

} // namespace

void CPrivateBus::SetUp()
{
    SDaemon& daemon = daemonOfThisProcess();
    if (daemon.pid > 0)
    {
        return; // an executable may have registered the environment by hand as well
    }
    start(daemon);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", daemon.address.c_str(), 1);
}

void CPrivateBus::TearDown()
{
    end(daemonOfThisProcess(), SIGTERM);
}

std::string CPrivateBus::UniqueName()
{
    static std::atomic<int> last{0};
    return "org.trelin.nelo_rpc.test.Peer" + std::to_string(++last);
}

std::string const& CPrivateBus::Address()
{
    return daemonOfThisProcess().address;
}

void CPrivateBus::Kill()
{
    end(daemonOfThisProcess(), SIGKILL);
}

void CPrivateBus::Start()
{
    start(daemonOfThisProcess());
}

void CPrivateBus::Suspend()
{
    pid_t const pid = daemonOfThisProcess().pid;
    ASSERT_EQ(0, ::kill(pid, SIGSTOP));

    // Stopping is not done when kill() returns; the state change is what says so.
    int status = 0;
    ASSERT_EQ(pid, ::waitpid(pid, &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
}

void CPrivateBus::Resume()
{
    EXPECT_EQ(0, ::kill(daemonOfThisProcess().pid, SIGCONT));
}
