#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/dbusport/CDbusPort.h>

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
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

    /// Lets the connection end waits when it has something to send or to dispatch, and when there are bytes to read.
    void Attach(DBusConnection* connection);
    static void Detach(DBusConnection* connection);

    /// Ends a wait that is under way, or the next one.
    void Kick() const;

    /// The same, for a thread that is to end and reads nothing more.
    void KickOut();

    /// Takes back what kicks have left. Afterwards the connection must be looked at before it is waited for again.
    void Drain() const;

    /// Waits until there are bytes to read, room for bytes that wait to be sent, or a kick; -1 ms waits for ever. Does
    /// not return while another thread reads instead, unless the calling one is to end.
    void Wait(DBusConnection* connection, int timeoutMs);

    /// Waits for a kick only.
    void WaitForKick(int timeoutMs) const;

    using Deadline = std::chrono::steady_clock::time_point; ///< max(): never

    /// Waits until the thread that reads the connection has completed the call, or the time is over. If that thread
    /// ends, the calling one waits inside libdbus.
    void WaitForReply(DBusPendingCall* call, Deadline deadline);

    /// A descriptor that is readable when one of those is, for as long as the object lives; -1 if there is none.
    int GetPollFd() const { return m_epollFd; }

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

    /// The calling thread reads the connection for as long as this lives, in place of the thread that is in Wait(), which
    /// does not even wake up: a reply that goes through that one takes two switches between threads more.
    class CReadInstead
    {
    public:
        CReadInstead(CIo& io, DBusConnection* connection);
        CReadInstead(CReadInstead const&) = delete;
        CReadInstead& operator=(CReadInstead const&) = delete;

        /// What was read but not dispatched is left to the usual thread.
        ~CReadInstead();

        /// Reads until the call is completed or the time is over. False if it is the usual thread that has to complete
        /// it: that one was not in Wait(), and may have the reply in its hands, or something else came first. It then
        /// reads again.
        bool ReadReply(DBusPendingCall* call, dbus_uint32_t serial, Deadline deadline);

    private:
        bool IsNext(dbus_uint32_t serial) const;
        void HandBack();

        CIo& m_io;
        DBusConnection* const m_connection;
        bool m_reads = false; // false too if no thread was in Wait()
        std::optional<CInside> m_inside;
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
    std::atomic<bool> delivering{false}; // the queue is emptied; read without the mutex too
    std::set<DBusMessage*> unanswered;

private:
    /// Without an eventfd nothing ends a wait before its time, so none is long.
    int Bounded(int timeoutMs) const;

    void PollFor(DBusConnection* connection, int timeoutMs) const;
    void Watch(unsigned int events);
    bool IsToEnd() const;

    int m_eventFd;
    int m_epollFd; // of m_eventFd and the connection; -1 if the system gives none
    int m_fd = -1;

    std::condition_variable m_handedBack;

    // Guarded by the mutex.
    unsigned int m_watched = 0; // what of the connection ends a wait, as epoll names it
    bool m_isInWait = false;    // and nobody has ended the wait
    bool m_isReadInstead = false;
};

} // namespace nelo_rpc
