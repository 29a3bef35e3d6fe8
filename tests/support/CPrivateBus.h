#pragma once

#include <gtest/gtest.h>

#include <string>

/// The private bus of this test process: the one that applications get for their tests, as part of the tests'
/// framework. A test may take the daemon away: Start() brings a new one up at the same address, where nobody is
/// connected any more.
///
/// Every executable that uses this class has its bus: it registers itself as a test environment, so the daemon
/// is forked before any test starts a thread. The static functions act on it and belong to the main thread.
class CPrivateBus : public ::testing::Environment
{
public:
    void SetUp() override;
    void TearDown() override;

    /// A well-known name that no other test of this process has been given.
    static std::string UniqueName();

    /// Where the daemon listens; the value of DBUS_SYSTEM_BUS_ADDRESS, which child processes inherit.
    static std::string const& Address();

    /// Ends the daemon as a crash would: every connection drops at once.
    static void Kill();

    /// Starts a daemon at the known address after Kill().
    static void Start();

    /// Stops the daemon in its tracks: connections stay open and nobody answers on them.
    static void Suspend();
    static void Resume();
};

/// Takes the bus away for the life of the object and leaves a new, empty one behind.
class CBusOutage
{
public:
    CBusOutage() { CPrivateBus::Kill(); }
    ~CBusOutage() { CPrivateBus::Start(); }

    CBusOutage(CBusOutage const&) = delete;
    CBusOutage& operator=(CBusOutage const&) = delete;
};

/// Lets the bus answer nothing for the life of the object.
class CBusPause
{
public:
    CBusPause() { CPrivateBus::Suspend(); }
    ~CBusPause() { CPrivateBus::Resume(); }

    CBusPause(CBusPause const&) = delete;
    CBusPause& operator=(CBusPause const&) = delete;
};
