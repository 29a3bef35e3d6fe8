#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/dbusport/CDbusPort.h>

#include <dbus/dbus.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

namespace nelo_rpc
{

/// Waits for a port's connection outside of libdbus, where it keeps nobody from sending, and holds the callbacks that a
/// delivery thread has yet to hand on.
class CDbusPort::CIo
{
public:
    CIo();
    CIo(CIo const&) = delete;
    CIo& operator=(CIo const&) = delete;
    ~CIo();

    /// Lets the connection end waits when it has something to send or to dispatch.
    void Attach(DBusConnection* connection);
    static void Detach(DBusConnection* connection);

    /// Ends a wait that is under way, or the next one.
    void Kick() const;

    /// Takes back what kicks have left. Afterwards the connection must be looked at before it is waited for again.
    void Drain() const;

    /// Waits until there are bytes to read, room for bytes that wait to be sent, or a kick; -1 ms waits for ever.
    void Wait(DBusConnection* connection, int timeoutMs) const;

    /// Waits for a kick only.
    void WaitForKick(int timeoutMs) const;

    /// A descriptor that is readable when one of those is, for as long as the object lives.
    int GetPollFd(DBusConnection* connection);

    /// Whether the calling thread reads the connection, and so runs one of its listeners if it is not the port itself.
    bool IsInside() const;

    /// The calling thread is inside the connection for as long as this lives: it needs no kicks about what it does.
    class CInside
    {
    public:
        explicit CInside(CIo const& io);
        CInside(CInside const&) = delete;
        CInside& operator=(CInside const&) = delete;
        ~CInside();

    private:
        void const* const m_outer;
    };

    // The receiver waits for the first, and everybody for the second.
    std::atomic<bool> constructed{false};
    std::atomic<bool> closing{false};
    std::atomic<bool> filtering{false}; // the port's filter is installed

    /// Threads that send what a host's workers and objects give them. One of them may be a worker that its host has
    /// cut off and left behind, so the port's end waits for them.
    std::shared_ptr<internal_guarded::CRunners> const senders = std::make_shared<internal_guarded::CRunners>();

    std::mutex mutex;
    std::condition_variable changed; // the reader, a reply that is waited for, or the queue

    // All below is guarded by the mutex.
    EReader reader = EReader::Nobody;
    std::deque<types::CValueList> callbacks;
    bool delivering = false; // the queue is emptied
    std::set<DBusMessage*> unanswered;

private:
    /// Without an eventfd nothing ends a wait before its time, so none is long.
    int Bounded(int timeoutMs) const;

    int m_eventFd;
    int m_epollFd = -1;
};

} // namespace nelo_rpc
