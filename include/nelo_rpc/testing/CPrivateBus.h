#pragma once

#include <string>

#include <sys/types.h>

/// For tests of applications; in the library nelo-rpc-testing, which a program links beside nelo-rpc.
namespace nelo_rpc::test
{

/// A bus of this process's own, which stands in for the system bus for the process and for those it starts.
///
/// Make one before the first thread and the first port, and keep it until the end: libdbus looks at the environment
/// once, at its first connection, so a second bus would never be talked to. Tests of one process keep apart by name.
/// The daemon ends with the object, and also when the thread that made it dies without destroying it.
///
/// Its type and limits are those of a system bus, but everybody may own any name and call anybody, nothing is activated,
/// and nothing is logged. Not for several threads at once. Since 0.1.
class CPrivateBus
{
public:
    /// Starts `dbus-daemon`, found by PATH, waits until it listens and sets DBUS_SYSTEM_BUS_ADDRESS. Whether that went
    /// well is to be asked with IsRunning(); the cause is written to standard error.
    ///
    /// @param config  the daemon's configuration, if not GetDefaultConfig(): for tests of a policy.
    explicit CPrivateBus(std::string const& config = GetDefaultConfig());
    CPrivateBus(CPrivateBus const&) = delete;
    CPrivateBus& operator=(CPrivateBus const&) = delete;
    ~CPrivateBus();

    /// The configuration as XML; a rule of one's own goes before "</busconfig>".
    static std::string const& GetDefaultConfig();

    bool IsRunning() const;

    /// Where the bus listens: the value of DBUS_SYSTEM_BUS_ADDRESS. Empty if it never ran.
    std::string const& GetAddress() const;

    /// Ends the daemon as a crash would: every connection drops at once.
    void Kill();

    /// Starts a daemon at the known address after Kill(), with nobody on it. @return whether it runs.
    bool Start();

    /// Stops the daemon in its tracks: connections stay open and nobody answers on them. @return whether it stopped.
    bool Suspend();

    /// Ends that. @return whether there is a daemon.
    bool Resume();

    /// A well-known name that nobody in this process has been given before. Any thread.
    static std::string UniqueName();

private:
    void End(int signal);

    std::string const m_config;
    std::string m_address;
    pid_t m_pid;
};

} // namespace nelo_rpc::test
