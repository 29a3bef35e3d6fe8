#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/dbusport/CDbusPort.h>

#include "CAsyncCalls.h"
#include "CAwaitedReplies.h"
#include "CSideConnection.h"
#include "CTurn.h"
#include "CUnread.h"
#include "DbusPointers.h"
#include "Deadline.h"

#include <dbus/dbus.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

namespace nelo_rpc
{

/// What a port has to do with its connection: waits outside of libdbus, where they keep nobody from sending, who reads,
/// the answers that are waited for, and what a delivery thread or an application's loop has yet to hand on.
class CDbusPort::CIo
{
public:
    CIo(CDbusPort& port, std::size_t maxUnreadBytes);
    CIo(CIo const&) = delete;
    CIo& operator=(CIo const&) = delete;
    ~CIo();

    /// Lets the connection end waits when it has something to send or to dispatch, and when there are bytes to read.
    void Attach(DBusConnection* connection);
    static void Detach(DBusConnection* connection);

    /// From now on another one reads the connection; without anybody, callers that wait go on by themselves.
    void SetReader(EReader newReader);

    /// Ends a wait that is under way, or the next one.
    void Kick() const;

    /// The same, for a thread that is to end and reads nothing more.
    void KickOut();

    /// Takes back what kicks of the usual thread have left. Afterwards the connection must be looked at before it is
    /// waited for again.
    void Drain() const { Drain(m_eventFd); }

    /// Waits until there are bytes to read, room for bytes that wait to be sent, or a kick; -1 ms waits for ever. Does
    /// not return while another thread reads instead, unless the calling one is to end.
    void Wait(DBusConnection* connection, int timeoutMs);

    /// Reads and writes without waiting, and of a large message all that is there: to wait between its pieces would cost
    /// more than to read them. False when the connection is lost.
    bool Read(DBusConnection* connection) const;

    /// Writes what waits to be sent, until the time is over or the connection is lost.
    void Flush(DBusConnection* connection, Deadline deadline) const;

    /// Waits for a kick only.
    void WaitForKick(int timeoutMs) const;

    /// What libdbus calls for each message, with the port as its data. Its frames cannot be unwound, so an exception of
    /// a listener ends the process here.
    static DBusHandlerResult OnMessage(DBusConnection* connection, DBusMessage* message, void* port) noexcept;

    /// Throws a message away that nobody is going to dispatch. A ping is answered all the same: it tells what was read.
    static void Drop(DBusConnection* connection, DBusMessage* message);

    /// The next message for an application's loop: what calls have set aside, and then what has arrived. Null if there
    /// is none.
    dbus::MessagePointer TakeNext(DBusConnection* connection);

    /// Does about a message what libdbus would when it dispatches, which it must not: nobody can take a message from
    /// its queue meanwhile.
    void Dispatch(DBusConnection* connection, DBusMessage* message);

    /// Ends the wait of the thread that reads instead of the usual one, or beside a loop.
    void KickInstead() const;

    /// What the delivery's thread for handlers or an application's loop is to run: a callback, or the end of a call.
    struct SDelivery
    {
        types::CValueList callback;
        CAsyncCalls::Call ended;
    };

    /// Hands a call that has ended to the thread that runs handlers, or runs its own if this is that thread.
    void DeliverEnd(CAsyncCalls::Call const& call, bool atStart);

    std::deque<SDelivery> TakeDeliveries();

    /// Runs the handler of a call. Nothing can catch what leaves that.
    void Complete(CAsyncCalls::SCall& call) noexcept;

    /// For an application's loop: from now on its descriptor is readable also when there is room to send what waits.
    void WatchForLoop(DBusConnection* connection);

    /// The connection is lost: its descriptor would end every wait.
    void StopWatching();

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
        friend class CIo;

        /// A listener of one port may dispatch another: the calling thread is inside both then.
        static thread_local CInside const* innermost;

        CIo const& m_io;
        CInside const* const m_outer;
    };

    /// One call and the wait for its answer, on a thread that is not inside the connection.
    ///
    /// If the thread that usually reads is in Wait(), the calling one reads in its place for as long as this lives, and
    /// that one does not even wake up: an answer that goes through it takes two switches between threads more.
    ///
    /// Beside an application's loop it always reads, since the loop may be its own thread's, or busy. What it is not
    /// waiting for is set aside.
    class CQuestion
    {
    public:
        CQuestion(CIo& io, DBusConnection* connection);
        CQuestion(CQuestion const&) = delete;
        CQuestion& operator=(CQuestion const&) = delete;
        ~CQuestion();

        /// False if the connection is lost.
        bool Send(DBusMessage* call);

        /// Null if the time is over or the connection is lost.
        DBusMessage* Wait(Deadline deadline);

    private:
        struct SAnswer;

        DBusMessage* ReadAnswer(Deadline deadline) const;
        bool IsAnswerNext() const;
        bool IsAnswer(DBusMessage* message) const;
        void HandBack();
        CAwaitedReplies::Done FillIn() const;
        DBusMessage* WaitForAnswer(Deadline deadline) const;
        DBusMessage* ReadAlone(Deadline deadline) const;
        DBusMessage* ReadBesideLoop(Deadline deadline) const;
        dbus::MessagePointer SetOthersAside() const;
        void LeaveToLoop() const;
        bool LeavesSomething() const;

        /// False when the time is over or the connection is lost.
        bool ReadSome(Deadline deadline) const;

        CIo& m_io;
        DBusConnection* const m_connection;
        dbus_uint32_t m_serial = 0;
        bool m_reads = false;
        bool m_isBesideLoop = false;
        std::optional<CInside> m_inside;
        std::shared_ptr<SAnswer> m_answer; // not while this thread reads
    };

    // The receiver waits for the first, and everybody for the second.
    std::atomic<bool> constructed{false};
    std::atomic<bool> closing{false};
    std::atomic<bool> filtering{false}; // the port's filter is installed

    /// Threads that send what a host's workers and objects give them, or ask the bus. One of them may be a worker that
    /// its host has cut off and left behind, so the port's end waits for them.
    std::shared_ptr<internal_guarded::CRunners> const senders = std::make_shared<internal_guarded::CRunners>();

    CAwaitedReplies awaited;
    CAsyncCalls asyncCalls;
    CTurn callTurn; // for calls that are waited for, outside of the send mutex
    CSideConnection side;
    CUnread unread;
    std::atomic<bool> mayPing{true}; // the policy of the bus has not said otherwise

    std::mutex mutex;
    std::condition_variable changed; // the reader, a reply that is waited for, or the queue

    // All below is guarded by the mutex.
    EReader reader = EReader::Nobody;
    std::deque<SDelivery> deliveries;
    std::atomic<bool> delivering{false}; // the queue is emptied; read without the mutex too
    std::set<DBusMessage*> unanswered;

private:
    /// What libdbus answers by itself when it dispatches.
    static bool AnswerPeerCall(DBusConnection* connection, DBusMessage* message);
    static void Drain(int eventFd);

    /// Without an eventfd nothing ends a wait before its time, so none is long.
    static int Bounded(int eventFd, int timeoutMs);

    enum class EEvents
    {
        TimerOnly,
        Others
    };

    EEvents WaitForEvents(int timeoutMs) const;
    void WaitForHandBack();
    void Wake() const;
    void PollFor(DBusConnection* connection, int eventFd, int timeoutMs) const;
    void Watch(unsigned int events);
    bool IsToEnd() const;

    CDbusPort& m_port;
    int m_eventFd;
    int m_insteadFd; // the eventfd of whoever reads instead or beside: two threads cannot both take back one kick
    int m_epollFd;   // of m_eventFd and the connection; -1 if the system gives none
    int m_fd = -1;   // of the connection's socket; not the one that libdbus closes

    std::condition_variable m_handedBack;

    // Guarded by the mutex.
    unsigned int m_watched = 0;                  // what of the connection ends a wait, as epoll names it
    bool m_isInWait = false;                     // and nobody has ended the wait
    std::atomic<bool> m_isReadInstead{false};    // or beside a loop; read by kicks without the mutex
    std::deque<dbus::MessagePointer> m_setAside; // for the loop, which takes those first
};

} // namespace nelo_rpc
