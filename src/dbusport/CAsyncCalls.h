#pragma once

#include <nelo_rpc/CRpcPort.h>

#include "CAwaitedReplies.h"
#include "CallFailure.h"
#include "DbusPointers.h"
#include "Deadline.h"

#include <dbus/dbus.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace nelo_rpc
{

/// Calls whose ends nobody waits for: so many are under way, the others wait behind them in order. Each ends once.
class CAsyncCalls
{
public:
    struct SCall
    {
        dbus::MessagePointer message; // until it is sent
        std::string destination;
        CRpcPort::CallDone done;
        Deadline deadline;

        // How it ended: one of the two is there.
        dbus::MessagePointer reply;
        dbus::SCallFailure failure;

        // The rest belongs to CAsyncCalls.
        dbus_uint32_t serial = 0; // once it is sent
        bool isOver = false;
    };
    using Call = std::shared_ptr<SCall>;

    /// Takes a call that has ended. Any thread, without a lock held.
    ///
    /// @param atStart  whether that is while the application starts one.
    using Deliver = std::function<void(Call const& call, bool atStart)>;

    CAsyncCalls(CAwaitedReplies& awaited, Deliver deliver);
    CAsyncCalls(CAsyncCalls const&) = delete;
    CAsyncCalls& operator=(CAsyncCalls const&) = delete;
    ~CAsyncCalls();

    /// From now on calls are taken; somebody reads the connection.
    void Accept(DBusConnection* connection);

    bool IsAccepting() const;

    /// Takes a call, which may have a failure already. False if calls are not taken: they would never be answered.
    bool Start(Call const& call);

    /// Ends the calls whose time is over.
    void Expire();

    /// Ends all calls as Disconnected, and takes none from now on.
    void EndAll(char const* reason);

    /// Readable when Expire() has something to do; -1 if the system gives none.
    int GetTimerFd() const { return m_timerFd; }

private:
    using Ended = std::vector<Call>;

    void OnAnswer(Call const& call, DBusMessage* answer);
    void End(Call const& call, Ended& ended);
    void DropEnded();
    void SendWaiting(Ended& ended);
    bool Send(Call const& call);
    void SetTimer();
    void HandOn(Ended const& ended, bool atStart = false) const;

    CAwaitedReplies& m_awaited;
    Deliver const m_deliver;
    int const m_timerFd;
    mutable std::mutex m_mutex;

    // Guarded by the mutex.
    DBusConnection* m_connection = nullptr; // null while calls are not taken
    std::set<std::pair<Deadline, Call>> m_calls;
    std::deque<Call> m_waiting;
    std::size_t m_underWay = 0;
    Deadline m_timer = Deadline::max(); // for which the descriptor is set
};

} // namespace nelo_rpc
