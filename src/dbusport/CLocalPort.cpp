#include <nelo_rpc/dbusport/CLocalPort.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include "../SystemLog.h"
#include "CPeerWatch.h"
#include "CTurn.h"
#include "CallFailure.h"
#include "DbusPointers.h"
#include "Deadline.h"
#include "ErrorReply.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nelo_rpc
{

namespace
{

using dbus::SCallFailure;
using std::chrono::steady_clock;

/// Nothing announces a listener, so a port that holds a call back for one looks this often.
constexpr std::chrono::milliseconds LISTENER_CHECK(10);

/// What a bus tells a port that watches its peers, in the order in which it happens with messages: the name of a port
/// that has ended, or at the beginning all names that are there.
struct SNews
{
    std::string gone;
    std::set<std::string> present;
};

struct SMailbox;

/// A message on its way, and of a call the way back; or news, without a message.
struct SMessage
{
    explicit SMessage(DBusMessage* m) : message(m) {}
    explicit SMessage(SNews n) : news(std::move(n)) {}

    dbus::MessagePointer const message; // null too for a call that cannot be sent
    SNews const news;
    std::atomic<bool> replied{false};

    /// Empty if the caller waits for the call's end. Else the end goes to the caller's queue, and the thread that takes
    /// it from there takes this.
    CRpcPort::CallDone done;

    // All below is guarded by the bus's mutex; reply and failure do not change once the call is over.
    std::condition_variable ended;
    bool over = false;
    dbus::MessagePointer reply; // null: the call failed
    SCallFailure failure;

    // Of a call that is open.
    std::shared_ptr<SMailbox> caller;
    std::shared_ptr<SMailbox> callee;
    Deadline deadline;
};

/// What a port has to handle: a message that arrived, or the end of a call that it made.
struct SItem
{
    std::shared_ptr<SMessage> message;
    bool isEnd;
};

/// What a bus keeps for a port; guarded by the bus's mutex.
struct SMailbox
{
    std::condition_variable changed;
    std::deque<SItem> queue;
    std::set<std::shared_ptr<SMessage>> awaited;                                        // to the port and from it
    std::set<std::pair<steady_clock::time_point, std::shared_ptr<SMessage>>> deadlines; // of those it does not wait for
    std::string uniqueName;
    bool watches = false;
    bool closed = false;
};

std::string newUniqueName()
{
    static std::atomic<unsigned int> last{0};
    return ":local." + std::to_string(++last);
}

} // namespace

/// Carries messages to the ports that they name. Never calls out, so no lock of it is held while a listener runs.
class CLocalBus::CImpl
{
public:
    /// False if others have the name, and keep it.
    bool GiveName(std::string const& name, std::shared_ptr<SMailbox> const& mailbox)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const own = m_owners.emplace(name, mailbox);
        return own == m_owners.lower_bound(name);
    }

    /// The same for the name that nobody else has; before the others.
    void GiveUniqueName(std::string const& name, std::shared_ptr<SMailbox> const& mailbox)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        mailbox->uniqueName = name;
        m_owners.emplace(name, mailbox);
    }

    /// Which ports are there goes to the port at once, and from then on each that ends.
    void Watch(SMailbox& mailbox)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        SNews news;
        for (auto const& owner : m_owners)
        {
            news.present.insert(owner.first);
        }
        mailbox.watches = true;
        mailbox.queue.push_back({std::make_shared<SMessage>(std::move(news)), false});
        mailbox.changed.notify_all();
    }

    void EndWatch(SMailbox& mailbox)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        mailbox.watches = false;
    }

    bool HasOwner(std::string const& name)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_owners.count(name) != 0;
    }

    bool Send(std::shared_ptr<SMessage> const& message)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return Push(message) != nullptr;
    }

    /// Sends a call and waits for its end.
    void Call(std::shared_ptr<SMailbox> const& from, std::shared_ptr<SMessage> const& call, Deadline deadline)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        Open(from, call);
        if (steady_clock::now() < deadline) // else even a very quick reply is too late
        {
            call->ended.wait_until(lock, deadline, [&] { return call->over; });
        }
        EndLate(call);
    }

    /// Sends a call, unless something keeps it from being sent, and does not wait: its end goes to the caller's queue.
    ///
    /// @return false if nobody reads that any more; then the call has failed here.
    bool Start(std::shared_ptr<SMailbox> const& from, std::shared_ptr<SMessage> const& call, Deadline deadline,
               SCallFailure const& obstacle)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        bool const isRead = !from->closed;
        if (isRead)
        {
            call->caller = from;
        }
        if (obstacle)
        {
            End(call, nullptr, obstacle);
            return isRead;
        }
        call->deadline = deadline;
        Open(from, call);
        if (steady_clock::now() >= deadline)
        {
            EndLate(call);
        }
        if (!call->over)
        {
            from->deadlines.emplace(deadline, call);
            from->changed.notify_all(); // whoever reads the queue waits no longer than that
        }
        return isRead;
    }

    void Reply(std::shared_ptr<SMessage> const& call, dbus::MessagePointer reply, std::string const& refusal)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        bool const isRefused = reply == nullptr;
        End(call, std::move(reply), isRefused ? SCallFailure{ECallStatus::Refused, refusal} : SCallFailure{});
    }

    /// The next item for a port; waits for it. Nothing once the port is closed and has been told of all its calls.
    std::optional<SItem> Receive(SMailbox& mailbox)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        EndLateCalls(mailbox);
        while (mailbox.queue.empty() && !mailbox.closed)
        {
            WaitForItem(lock, mailbox);
            EndLateCalls(mailbox);
        }
        if (mailbox.queue.empty())
        {
            return std::nullopt;
        }
        SItem item = std::move(mailbox.queue.front());
        mailbox.queue.pop_front();
        return item;
    }

    /// Whether the port is closed by then.
    bool WaitUntilClosed(SMailbox& mailbox, std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return mailbox.changed.wait_for(lock, limit, [&] { return mailbox.closed; });
    }

    void Close(std::shared_ptr<SMailbox> const& mailbox)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        for (auto owner = m_owners.begin(); owner != m_owners.end();)
        {
            owner = owner->second == mailbox ? m_owners.erase(owner) : std::next(owner);
        }
        for (auto const& call : std::set<std::shared_ptr<SMessage>>(mailbox->awaited)) // a copy: each one leaves
        {
            End(call, nullptr, {ECallStatus::Disconnected, "a port was destroyed before the reply came"});
        }
        auto const isMessage = [](SItem const& item) { return !item.isEnd; };
        auto const messages = std::remove_if(mailbox->queue.begin(), mailbox->queue.end(), isMessage);
        mailbox->queue.erase(messages, mailbox->queue.end());
        for (auto const& [name, other] : m_owners)
        {
            if (other->watches && name == other->uniqueName) // once for each port
            {
                other->queue.push_back({std::make_shared<SMessage>(SNews{mailbox->uniqueName, {}}), false});
                other->changed.notify_all();
            }
        }
        mailbox->closed = true;
        mailbox->changed.notify_all();
    }

private:
    /// The mailbox that the message is put into, or null if there is none.
    std::shared_ptr<SMailbox> Push(std::shared_ptr<SMessage> const& message)
    {
        // The first of several owners, in the order in which they asked for the name.
        std::string const name = dbus_message_get_destination(message->message.get());
        auto const owner = m_owners.lower_bound(name);
        if (owner == m_owners.end() || owner->first != name)
        {
            return nullptr;
        }
        owner->second->queue.push_back({message, false});
        owner->second->changed.notify_all();
        return owner->second;
    }

    /// Sends a call, or ends it.
    void Open(std::shared_ptr<SMailbox> const& from, std::shared_ptr<SMessage> const& call)
    {
        std::shared_ptr<SMailbox> const to = from->closed ? nullptr : Push(call);
        if (to == nullptr)
        {
            End(call, nullptr,
                from->closed ? SCallFailure{ECallStatus::Disconnected, "the port is closed"}
                             : SCallFailure{ECallStatus::NoServer, "no port has the name of the peer"});
            return;
        }
        call->caller = from;
        call->callee = to;
        from->awaited.insert(call);
        to->awaited.insert(call);
    }

    /// What comes first ends a call: the reply, the time-out or the end of a port.
    static void End(std::shared_ptr<SMessage> const& call, dbus::MessagePointer reply, SCallFailure failure)
    {
        if (call->over)
        {
            return;
        }
        call->over = true;
        call->reply = std::move(reply);
        call->failure = std::move(failure);
        call->ended.notify_all();
        std::shared_ptr<SMailbox> const caller = std::move(call->caller);
        std::shared_ptr<SMailbox> const callee = std::move(call->callee);
        if (callee != nullptr)
        {
            callee->awaited.erase(call);
        }
        if (caller != nullptr)
        {
            caller->awaited.erase(call);
            caller->deadlines.erase({call->deadline, call});
            if (call->done)
            {
                caller->queue.push_back({call, true});
                caller->changed.notify_all();
            }
        }
    }

    static void EndLate(std::shared_ptr<SMessage> const& call) { End(call, nullptr, dbus::tooLate()); }

    static void EndLateCalls(SMailbox& mailbox)
    {
        auto const now = steady_clock::now();
        while (!mailbox.deadlines.empty() && mailbox.deadlines.begin()->first <= now)
        {
            EndLate(std::shared_ptr<SMessage>(mailbox.deadlines.begin()->second)); // a copy: it leaves
        }
    }

    static void WaitForItem(std::unique_lock<std::mutex>& lock, SMailbox& mailbox)
    {
        if (mailbox.deadlines.empty())
        {
            mailbox.changed.wait(lock);
        }
        else
        {
            mailbox.changed.wait_until(lock, steady_clock::time_point(mailbox.deadlines.begin()->first));
        }
    }

    std::mutex m_mutex; // guards the mailboxes and messages too
    std::multimap<std::string, std::shared_ptr<SMailbox>> m_owners;
};

CLocalBus::CLocalBus()
{
    CCancellationGuard const guard;
    dbus_threads_init_default();
    m_impl = std::make_shared<CImpl>();
}

CLocalBus::~CLocalBus()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_impl.reset();
}

class CLocalPort::CImpl : public std::enable_shared_from_this<CImpl>
{
public:
    CImpl(CLocalPort& port, std::shared_ptr<CLocalBus::CImpl> bus, char const* name, bool bUseAsync)
        : m_port(port), m_bus(std::move(bus)), m_name(types::toString(name)), m_bUseAsync(bUseAsync)
    {
    }

    void Open();
    void Close();
    int AddConnection(std::string const& name);
    std::string GetPeerName(int connectionId);
    std::optional<SPeerCredentials> GetPeerCredentials(int connectionId);
    void WatchPeers(std::function<void(int connectionId)> onGone);
    types::CValueList CallFunction(types::CValueList const& call, int connectionId);
    CCallResult RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options);
    void StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options,
                   CRpcPort::CallDone done);
    bool SendCallback(types::CValueList const& callback, int connectionId);
    bool IsConnected(int connectionId);
    void SetTimeoutMs(int timeoutMs);

private:
    /// What keeps arguments from being sent.
    using ArgumentLook = SCallFailure (*)(types::CValueList const& call);

    void RequestName();
    void Receive();
    bool WaitForListener();
    void OnNews(SNews const& news);
    void OnDbusMessage(std::shared_ptr<SMessage> const& message);
    int GetOrAddConnection(std::string const& sender);
    std::string GetOrInsertName(int connectionId);
    std::shared_ptr<SMessage> FromThisPort(DBusMessage* message) const;
    std::string DestinationOf(int connectionId);
    std::shared_ptr<SMessage> MakeCall(types::CValueList const& call, int connectionId, int timeoutMs,
                                       ArgumentLook look, SCallFailure& obstacle);
    static CCallResult ResultOf(SMessage const& call);
    static CCallResult Failed(SCallFailure const& failure);
    static void Complete(SMessage& call);
    void SendFunctionResult(std::shared_ptr<SMessage> const& call, types::CValueList const& result);
    void RequireMode(bool bUseAsync) const;

    // Only for the receiver thread.
    CLocalPort& m_port;
    bool m_hasListened = false;

    std::shared_ptr<CLocalBus::CImpl> const m_bus;
    std::string const m_name;
    bool const m_bUseAsync;
    std::string const m_uniqueName = newUniqueName();
    std::atomic<int> m_timeoutMs{-1};
    CTurn m_callTurn; // held for the whole of a blocking call

    std::mutex m_connectionsMutex; // guards the next three
    int m_lastConnectionId = -1;
    std::map<int, std::string> m_connectionNames;
    std::map<std::string, int> m_connectionIds;

    CPeerWatch m_watch;
    std::shared_ptr<SMailbox> const m_mailbox = std::make_shared<SMailbox>();
    std::thread m_receiverThread;
};

void CLocalPort::CImpl::Open()
{
    m_bus->GiveUniqueName(m_uniqueName, m_mailbox);
    m_receiverThread = std::thread(&CImpl::Receive, this);
    if (m_bUseAsync)
    {
        RequestName();
    }
    logDebug() << "CLocalPort created : bUseAsync = " << m_bUseAsync;
}

void CLocalPort::CImpl::RequestName()
{
    dbus::CError error;
    if (!dbus_validate_bus_name(m_name.c_str(), error.Get()))
    {
        logError() << "Dbus request name failed: " << error.Message();
    }
    else if (m_name.front() == ':')
    {
        logError() << "Dbus request name failed: a unique name cannot be requested: " << m_name;
    }
    else if (!m_bus->GiveName(m_name, m_mailbox))
    {
        logInfo() << "CLocalPort::CLocalPort name " << m_name << " has another owner, queued behind it";
    }
}

void CLocalPort::CImpl::Close()
{
    if (m_receiverThread.get_id() == std::this_thread::get_id())
    {
        logFatal() << "CLocalPort::~CLocalPort called by a listener that it runs";
        std::abort();
    }
    m_bus->Close(m_mailbox);
    m_receiverThread.join();
}

void CLocalPort::CImpl::Receive()
{
    while (auto const item = m_bus->Receive(*m_mailbox))
    {
        auto const& message = item->message;
        if (item->isEnd)
        {
            Complete(*message);
            continue;
        }
        if (message->message == nullptr)
        {
            OnNews(message->news);
            continue;
        }
        bool const isCall = dbus_message_get_type(message->message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL;
        if (isCall && m_bUseAsync && !WaitForListener())
        {
            return;
        }
        OnDbusMessage(message);
    }
}

bool CLocalPort::CImpl::WaitForListener()
{
    while (!m_hasListened && !m_port.HasFunctionCallListener())
    {
        if (m_bus->WaitUntilClosed(*m_mailbox, LISTENER_CHECK))
        {
            return false;
        }
    }
    m_hasListened = true; // for good: who takes a listener away does not want to be called any more
    return true;
}

void CLocalPort::CImpl::OnNews(SNews const& news)
{
    // In order with the messages, so every peer that a message came from before this has its id, and every one that
    // a message comes from later was there at the beginning.
    std::vector<int> gone;
    {
        std::lock_guard<std::mutex> const lock(m_connectionsMutex);
        for (auto const& [name, connectionId] : m_connectionIds)
        {
            bool const isUnique = !name.empty() && name.front() == ':';
            if (isUnique && (news.gone.empty() ? news.present.count(name) == 0 : news.gone == name))
            {
                gone.push_back(connectionId);
            }
        }
    }
    for (int const connectionId : gone)
    {
        m_watch.Tell(connectionId);
    }
}

void CLocalPort::CImpl::OnDbusMessage(std::shared_ptr<SMessage> const& message)
{
    DBusMessage* const received = message->message.get();
    std::string const sender = types::toString(dbus_message_get_sender(received));
    logDebug() << "CLocalPort::OnDbusMessage from " << sender;
    int const connectionId = GetOrAddConnection(sender);
    types::CValueList list = dbus::dbusMessageToValueList(received);
    if (dbus_message_get_type(received) == DBUS_MESSAGE_TYPE_SIGNAL)
    {
        logDebug() << "CLocalPort::OnDbusMessage received callback " << types::toString(list);
        m_port.OnCallback(list);
    }
    else
    {
        logDebug() << "CLocalPort::OnDbusMessage received function call request " << types::toString(list);
        auto const reply = [self = shared_from_this(), message](types::CValueList const& result) {
            CCancellationGuard const guard;
            if (!message->replied.exchange(true))
            {
                self->SendFunctionResult(message, result);
            }
        };
        m_port.OnFunctionCall(list, connectionId, reply);
    }
    logDebug() << "CLocalPort::OnDbusMessage from " << types::toString(dbus_message_get_destination(received))
               << " handled";
}

int CLocalPort::CImpl::AddConnection(std::string const& name)
{
    int const connectionId = ++m_lastConnectionId;
    m_connectionNames[connectionId] = name;
    m_connectionIds[name] = connectionId;
    return connectionId;
}

int CLocalPort::CImpl::GetOrAddConnection(std::string const& sender)
{
    int connectionId = -1;
    {
        std::lock_guard<std::mutex> const lock(m_connectionsMutex);
        auto const known = m_connectionIds.find(sender);
        if (known != m_connectionIds.end())
        {
            return known->second;
        }
        connectionId = AddConnection(sender);
    }
    logInconsistency(Error, "OnDbusMessage", "Message from new client %s, storing its connection id = %d",
                     sender.c_str(), connectionId);
    return connectionId;
}

std::string CLocalPort::CImpl::GetOrInsertName(int connectionId)
{
    std::lock_guard<std::mutex> const lock(m_connectionsMutex);
    return m_connectionNames[connectionId];
}

std::string CLocalPort::CImpl::GetPeerName(int connectionId)
{
    std::lock_guard<std::mutex> const lock(m_connectionsMutex);
    auto const entry = m_connectionNames.find(connectionId);
    return entry == m_connectionNames.end() ? "" : entry->second;
}

std::optional<SPeerCredentials> CLocalPort::CImpl::GetPeerCredentials(int connectionId)
{
    if (!m_bus->HasOwner(GetPeerName(connectionId)))
    {
        return std::nullopt;
    }
    return SPeerCredentials{::geteuid(), ::getegid(), ::getpid()};
}

void CLocalPort::CImpl::WatchPeers(std::function<void(int connectionId)> onGone)
{
    m_watch.Set(std::move(onGone));
    if (m_watch.IsSet())
    {
        m_bus->Watch(*m_mailbox);
    }
    else
    {
        m_bus->EndWatch(*m_mailbox);
    }
}

std::shared_ptr<SMessage> CLocalPort::CImpl::FromThisPort(DBusMessage* message) const
{
    auto sent = std::make_shared<SMessage>(message);
    dbus_message_set_sender(message, m_uniqueName.c_str());
    dbus_message_set_serial(message, 1); // a reply cannot be made to a message without one, and nobody reads it
    return sent;
}

std::string CLocalPort::CImpl::DestinationOf(int connectionId)
{
    std::string destination = GetOrInsertName(connectionId);
    logDebug() << "CLocalPort::SendMessage from " << m_name << " to " << destination;
    return destination;
}

types::CValueList CLocalPort::CImpl::CallFunction(types::CValueList const& call, int connectionId)
{
    SCallFailure obstacle;
    int const timeoutMs = m_timeoutMs;
    auto const message = MakeCall(call, connectionId, timeoutMs, &dbus::failureToSend, obstacle);
    if (obstacle)
    {
        return Failed(obstacle).TakeList();
    }
    {
        std::lock_guard<CTurn> const turn(m_callTurn);
        m_bus->Call(m_mailbox, message, deadlineIn(timeoutMs));
    }
    return ResultOf(*message).TakeList();
}

CCallResult CLocalPort::CImpl::RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options)
{
    SCallFailure obstacle;
    int const timeoutMs = options.GetTimeoutMs().value_or(m_timeoutMs);
    auto const deadline = deadlineIn(timeoutMs);
    auto const message = MakeCall(call, connectionId, timeoutMs, &dbus::failureToSendAnything, obstacle);
    if (obstacle)
    {
        return Failed(obstacle);
    }
    {
        std::unique_lock<CTurn> const turn(m_callTurn, deadline);
        if (!turn.owns_lock())
        {
            return Failed(dbus::tooLate());
        }
        m_bus->Call(m_mailbox, message, deadline);
    }
    return ResultOf(*message);
}

void CLocalPort::CImpl::StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options,
                                  CRpcPort::CallDone done)
{
    SCallFailure obstacle;
    int const timeoutMs = options.GetTimeoutMs().value_or(m_timeoutMs);
    auto const deadline = deadlineIn(timeoutMs);
    auto const message = MakeCall(call, connectionId, timeoutMs, &dbus::failureToSendAnything, obstacle);
    message->done = std::move(done);
    if (!m_bus->Start(m_mailbox, message, deadline, obstacle))
    {
        Complete(*message);
    }
}

std::shared_ptr<SMessage> CLocalPort::CImpl::MakeCall(types::CValueList const& call, int connectionId, int timeoutMs,
                                                      ArgumentLook look, SCallFailure& obstacle)
{
    RequireMode(false);
    std::string const destination = DestinationOf(connectionId);
    obstacle = dbus::failureToCall(destination, timeoutMs);
    if (!obstacle)
    {
        obstacle = look(call);
    }
    return obstacle ? std::make_shared<SMessage>(static_cast<DBusMessage*>(nullptr))
                    : FromThisPort(dbus::valueListToFunctionCall(destination, call));
}

CCallResult CLocalPort::CImpl::ResultOf(SMessage const& call)
{
    return call.failure ? Failed(call.failure) : CCallResult(dbus::dbusMessageToValueList(call.reply.get()));
}

CCallResult CLocalPort::CImpl::Failed(SCallFailure const& failure)
{
    logError() << "Dbus error: " << failure.reason;
    logError() << "CLocalPort::SendMessage received empty reply";
    return CCallResult(failure.status, failure.reason);
}

void CLocalPort::CImpl::Complete(SMessage& call)
{
    CRpcPort::CallDone const done = std::move(call.done);
    done(ResultOf(call));
}

bool CLocalPort::CImpl::SendCallback(types::CValueList const& callback, int connectionId)
{
    RequireMode(true);
    std::string const destination = GetOrInsertName(connectionId);
    logDebug() << "CLocalPort::SendMessage from " << m_name << " to " << destination;
    if (!IsConnected(connectionId))
    {
        logDebug() << "CLocalPort::SendCallback failed, can't connect to " << destination;
        return false;
    }
    std::string const why = dbus::whyNotSendable(callback);
    if (!why.empty())
    {
        logError() << "CLocalPort::SendCallback to " << destination << " refused: " << why;
        return false;
    }
    return m_bus->Send(FromThisPort(dbus::valueListToCallback(destination, callback)));
}

void CLocalPort::CImpl::SendFunctionResult(std::shared_ptr<SMessage> const& call, types::CValueList const& result)
{
    RequireMode(true);
    if (refusal::CRefusal const* const refused = refusal::find(result))
    {
        dbus::SErrorReply const error = dbus::errorReplyFor(*refused);
        logDebug() << "CLocalPort::SendFunctionResult to "
                   << types::toString(dbus_message_get_sender(call->message.get())) << " refuses: " << error.name
                   << ": " << error.text;
        m_bus->Reply(call, nullptr, error.text);
        return;
    }
    std::string const why = dbus::whyNotSendable(result);
    dbus::MessagePointer reply;
    if (why.empty())
    {
        reply.reset(dbus::valueListToFunctionResult(call->message.get(), result));
    }
    else
    {
        logError() << "CLocalPort::SendFunctionResult to "
                   << types::toString(dbus_message_get_sender(call->message.get())) << " refused: " << why;
    }
    m_bus->Reply(call, std::move(reply), why);
}

bool CLocalPort::CImpl::IsConnected(int connectionId)
{
    std::string name; // empty, and so owned by nobody, if the id was never handed out
    {
        std::lock_guard<std::mutex> const lock(m_connectionsMutex);
        auto const entry = m_connectionNames.find(connectionId);
        if (entry != m_connectionNames.end())
        {
            name = entry->second;
        }
    }
    bool connected = false;
    if (!name.empty())
    {
        // On a bus the question would wait for a call that is under way, and so it does here.
        std::lock_guard<CTurn> const turn(m_callTurn);
        connected = m_bus->HasOwner(name);
    }
    logDebug() << "CLocalPort::IsConnected returns " << (connected ? "true" : "false");
    return connected;
}

void CLocalPort::CImpl::SetTimeoutMs(int timeoutMs)
{
    logDebug() << "CLocalPort::SetTimeoutMs timeoutMs = " << timeoutMs;
    m_timeoutMs = timeoutMs;
}

void CLocalPort::CImpl::RequireMode(bool bUseAsync) const
{
    if (m_bUseAsync != bUseAsync)
    {
        logFatal() << "m_bUseAsync is " << (m_bUseAsync ? "true" : "false") << ". Please check type when dbus created";
        std::abort();
    }
}

CLocalPort::CLocalPort(CLocalBus& bus, char const* name, bool bUseAsync)
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_impl = std::make_shared<CImpl>(*this, bus.m_impl, name, bUseAsync);
    m_impl->Open();
}

CLocalPort::CLocalPort(CLocalBus& bus, char const* name, char const* defaultName, bool bUseAsync)
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_impl = std::make_shared<CImpl>(*this, bus.m_impl, name, bUseAsync);
    m_impl->AddConnection(types::toString(defaultName)); // before a peer that calls at once can take the id
    m_impl->Open();
}

CLocalPort::~CLocalPort()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_impl->Close();
}

types::CValueList CLocalPort::CallFunction(types::CValueList const& call, int connectionId)
{
    CCancellationGuard const guard;
    auto const impl = m_impl; // lives on if the port is destroyed meanwhile
    return impl->CallFunction(call, connectionId);
}

CCallResult CLocalPort::RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options)
{
    auto const impl = m_impl;
    return impl->RunCall(call, connectionId, options);
}

void CLocalPort::StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options, CallDone done)
{
    auto const impl = m_impl;
    impl->StartCall(call, connectionId, options, std::move(done));
}

bool CLocalPort::SendCallback(types::CValueList const& callback, int connectionId)
{
    CCancellationGuard const guard;
    auto const impl = m_impl;
    return impl->SendCallback(callback, connectionId);
}

bool CLocalPort::IsConnected(int connectionId) const
{
    CCancellationGuard const guard;
    auto const impl = m_impl;
    return impl->IsConnected(connectionId);
}

void CLocalPort::SetTimeoutMs(int timeoutMs)
{
    CCancellationGuard const guard;
    m_impl->SetTimeoutMs(timeoutMs);
}

std::optional<SPeerCredentials> CLocalPort::GetPeerCredentials(int connectionId)
{
    CCancellationGuard const guard;
    auto const impl = m_impl;
    return impl->GetPeerCredentials(connectionId);
}

std::string CLocalPort::GetPeerName(int connectionId) const
{
    CCancellationGuard const guard;
    return m_impl->GetPeerName(connectionId);
}

bool CLocalPort::WatchPeers(std::function<void(int connectionId)> onGone)
{
    CCancellationGuard const guard;
    m_impl->WatchPeers(std::move(onGone));
    return true;
}

} // namespace nelo_rpc
