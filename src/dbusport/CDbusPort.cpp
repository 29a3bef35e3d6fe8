#include <nelo_rpc/dbusport/CDbusPort.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include "../SystemLog.h"
#include "CDbusPortIo.h"
#include "CDbusPortWatch.h"
#include "CallFailure.h"
#include "DbusNames.h"
#include "DbusPointers.h"
#include "ErrorReply.h"
#include "MessageCheck.h"
#include "PolicyHints.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <set>
#include <utility>
#include <vector>

namespace nelo_rpc
{

namespace
{

/// How long an idle receiver waits before it looks again.
constexpr int IDLE_WAIT_MS = 200;

/// How much one DispatchCallbacks() does at most, so that it returns also while messages arrive faster than they are
/// handled.
constexpr int DISPATCH_LIMIT = 200;

/// A line number that is part of a log text, whatever the source looks like.
constexpr int NEW_CLIENT_LINE = 122;

constexpr char const* UNREAD = "the peer leaves too much unread that it was sent";

/// Connections are closed but never given back to libdbus, and calls that were never answered keep their messages; here
/// a leak checker finds both.
void keepForEver(DBusConnection* connection, std::set<DBusMessage*> unanswered)
{
    static auto& mutex = *new std::mutex;
    static auto& kept = *new std::vector<std::pair<DBusConnection*, std::set<DBusMessage*>>>;
    std::lock_guard<std::mutex> const lock(mutex);
    kept.emplace_back(connection, std::move(unanswered));
}

/// Whether anybody waits for an answer. A message without a serial was not sent, and cannot be replied to.
bool isAnswerable(DBusMessage* call)
{
    return !dbus_message_get_no_reply(call) && dbus_message_get_serial(call) != 0;
}

} // namespace

SPortOptions SPortOptions::Recommended()
{
    SPortOptions options;
    options.waitForListener = true;
    options.peers = EPeers::Untrusted;
    options.maxPendingBytes = 32 * 1024 * 1024;
    options.rememberPeers = true;
    options.maxUnreadBytes = 96 * 1024 * 1024;
    return options;
}

CDbusPort::CDbusPort(char const* name, SPortOptions const& options)
    : m_connection(nullptr),
      m_name(types::toString(name)),
      m_bUseAsync(false),
      m_timeoutMs(-1),
      m_lastConnectionId(-1),
      m_options(options),
      m_io(std::make_unique<CIo>(*this, options.maxUnreadBytes)),
      m_watch(std::make_shared<CWatch>())
{
}

CDbusPort::CDbusPort(char const* name, bool bUseAsync, SPortOptions const& options) : CDbusPort(name, options)
{
    CCancellationGuard const guard;
    Open(bUseAsync);
    m_io->constructed = true;
}

CDbusPort::CDbusPort(char const* name, char const* defaultName, bool bUseAsync, SPortOptions const& options)
    : CDbusPort(name, options)
{
    CCancellationGuard const guard;
    Open(bUseAsync);
    AddDefaultConnection(types::toString(defaultName));
    m_io->constructed = true; // not before: a peer that calls at once would take the default connection's id
}

void CDbusPort::Open(bool bUseAsync)
{
    m_bUseAsync = bUseAsync; // also for a port that stays unusable, whose owner goes on calling it
    dbus_threads_init_default();
    dbus::CError error;
    m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get());
    if (error.IsSet())
    {
        logError() << "Dbus connection failed: " << error.Message();
        return;
    }
    if (m_connection == nullptr)
    {
        logFatal() << "Dbus connection is null";
        std::abort();
    }

    // A connection from dbus_bus_get_private() ends the process when it closes, unless told not to.
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    if (m_bUseAsync)
    {
        // Every call under way keeps its message. At its default limit the bus library would stop reading, the answers
        // included that a callback waits for, until some of these calls end: which they may do only after their
        // callbacks.
        dbus_connection_set_max_received_size(m_connection, std::numeric_limits<long>::max());
        if (!RequestName())
        {
            return;
        }
        StartReceiver();
        MatchNamesThatGo();
    }
    logDebug() << "CDbusPort created : bUseAsync = " << m_bUseAsync;
}

bool CDbusPort::RequestName()
{
    dbus::CError error;
    int owned = -1;
    if (dbus_validate_bus_name(m_name.c_str(), error.Get()))
    {
        owned = dbus_bus_request_name(m_connection, m_name.c_str(), DBUS_NAME_FLAG_REPLACE_EXISTING, error.Get());
    }
    if (error.IsSet())
    {
        logError() << "Dbus request name failed: " << error.Message();
        dbus::hintAtNamePolicy(*error.Get(), m_name);
        return false;
    }
    if (owned != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER && owned != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER)
    {
        logInfo() << "CDbusPort::CDbusPort name " << m_name
                  << " has another owner, queued behind it: " << dbus::describeOwner(m_connection, m_name);
    }
    return true;
}

void CDbusPort::StartReceiver()
{
    Filter();
    m_reciverThread = std::thread(&CDbusPort::Receive, this);
}

void CDbusPort::Receive()
{
    logDebug() << "start m_reciverThread !";
    CIo::CInside const inside(*m_io);
    HoldFirstDispatchBack();
    m_io->SetReader(EReader::Receiver);
    while (dbus_connection_read_write_dispatch(m_connection, 0))
    {
        if (dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_COMPLETE)
        {
            m_io->Wait(m_connection, IDLE_WAIT_MS);
            m_io->Read(m_connection);
        }
    }
    m_io->SetReader(EReader::Nobody);
}

void CDbusPort::HoldFirstDispatchBack()
{
    // A bus name is an invitation: a client that waited for it calls at once, and whoever made this port needs a
    // moment to install its listener.
    ::usleep(IDLE_WAIT_MS * 1000);
    while (!m_io->closing && (!m_io->constructed || (m_options.waitForListener && !HasFunctionCallListener())))
    {
        m_io->WaitForKick(IDLE_WAIT_MS);
    }
}

CDbusPort::~CDbusPort()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    RequireOutside("CDbusPort::~CDbusPort");
    m_watch->destroying = true;
    m_watch->lostListener.Set({});
    if (m_connection != nullptr)
    {
        // Closing does not wake a thread that is blocked in a call on the connection; this does.
        int fd = -1;
        if (dbus_connection_get_unix_fd(m_connection, &fd))
        {
            ::shutdown(fd, SHUT_RDWR);
        }
        {
            std::lock_guard<CTurn> const turn(m_io->callTurn);
            std::lock_guard<std::recursive_mutex> const lock(m_sendMutex);
            dbus_connection_close(m_connection);
        }
        m_io->closing = true;
        m_io->KickOut();
    }
    m_io->senders->WaitForOthers();
    if (m_reciverThread.joinable())
    {
        m_reciverThread.join();
    }
    m_io->SetReader(EReader::Nobody);
    EndAsyncCalls("the port was destroyed");
    if (m_connection != nullptr)
    {
        Unfilter();
        keepForEver(m_connection, std::move(m_io->unanswered));
    }
}

int CDbusPort::AddConnection(std::string const& name)
{
    CCancellationGuard const guard;
    int const connectionId = StoreConnection(name);
    AskForNames(); // nothing is known to have come from this peer: it may have gone long ago
    return connectionId;
}

int CDbusPort::StoreConnection(std::string const& name)
{
    std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
    int const connectionId = ++m_lastConnectionId;
    m_connectionNames[connectionId] = name;
    auto const [known, isNew] = m_connectionIds.emplace(name, connectionId);
    if (!isNew)
    {
        m_watch->earlierIds.emplace(name, std::exchange(known->second, connectionId));
    }
    return connectionId;
}

void CDbusPort::AddDefaultConnection(std::string const& name)
{
    CCancellationGuard const guard;
    if (AddConnection(name) != 0)
    {
        logFatal() << "Can use AddDefaultConnection only on initialization";
        std::abort();
    }
}

bool CDbusPort::IsConnected(int connectionId) const
{
    CCancellationGuard const guard;
    internal_guarded::CRun run;
    run.Enter(m_io->senders);
    std::string name; // empty, and so owned by nobody, if the id was never handed out
    {
        std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
        auto const entry = m_connectionNames.find(connectionId);
        if (entry != m_connectionNames.end())
        {
            name = entry->second;
        }
    }
    auto const watch = m_watch; // the port may be destroyed while the question is open
    bool lost = false;
    bool const connected = !name.empty() && IsThere(name, lost);
    if (lost)
    {
        watch->TellLoss();
    }
    logDebug() << "CDbusPort::IsConnected returns " << (connected ? "true" : "false");
    return connected;
}

void CDbusPort::SetTimeoutMs(int timeoutMs)
{
    CCancellationGuard const guard;
    logDebug() << "CDbusPort::SetTimeoutMs timeoutMs = " << timeoutMs;
    m_timeoutMs = timeoutMs;
}

int CDbusPort::OnDbusMessage(DBusConnection* /*connection*/, DBusMessage* message)
{
    std::string const sender = types::toString(dbus_message_get_sender(message));
    logDebug() << "CDbusPort::OnDbusMessage from " << sender;
    std::string const path = types::toString(dbus_message_get_path(message));
    if (path != dbus::OBJECT_PATH)
    {
        return HandleOtherPath(message, sender, path);
    }
    types::CValueList list;
    bool const isChecked = m_options.peers == EPeers::Untrusted;
    if (isChecked && (HandleIntrospection(message, path) || IsRefused(message, sender, list)))
    {
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    int connectionId = -1;
    if (GetOrAddConnection(sender, connectionId))
    {
        logInconsistencyAtLine(Error, NEW_CLIENT_LINE, "OnDbusMessage",
                               "Message from new client %s, storing its connection id = %d", sender.c_str(),
                               connectionId);
    }
    if (!isChecked)
    {
        list = dbus::dbusMessageToValueList(message);
    }
    switch (dbus_message_get_type(message))
    {
    case DBUS_MESSAGE_TYPE_SIGNAL:
        logDebug() << "CDbusPort::OnDbusMessage received callback " << types::toString(list);
        HandleCallback(list);
        break;
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        logDebug() << "CDbusPort::OnDbusMessage received function call request " << types::toString(list);
        HandleFunctionCall(list, connectionId, message);
        break;
    default:
        logFatal() << "unexpected dbus message type";
        std::abort();
    }
    logDebug() << "CDbusPort::OnDbusMessage from " << types::toString(dbus_message_get_destination(message))
               << " handled";
    return DBUS_HANDLER_RESULT_HANDLED;
}

int CDbusPort::HandleOtherPath(DBusMessage* message, std::string const& sender, std::string const& path)
{
    if (HandleNews(message, sender) || (m_options.peers == EPeers::Untrusted && HandleIntrospection(message, path)))
    {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    logError() << "CDbusPort::OnDbusMessage ignoring message from " << sender << " with path=" << path;
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") && sender.empty())
    {
        m_watch->TellLoss();
    }
    if (m_options.peers == EPeers::Trusted || dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
    {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    // Where no object is registered at all, libdbus itself would say that the object lacks the method.
    AnswerWithError(message, refusal::UNKNOWN_OBJECT, "there is no object with this path");
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool CDbusPort::HandleIntrospection(DBusMessage* message, std::string const& path)
{
    std::string const description = dbus::isIntrospection(message) ? dbus::introspectionOf(path) : "";
    if (description.empty())
    {
        return false;
    }
    logDebug() << "CDbusPort::OnDbusMessage introspection of " << path;
    if (isAnswerable(message))
    {
        char const* const text = description.c_str();
        dbus::MessagePointer const answer(dbus_message_new_method_return(message));
        dbus_message_append_args(answer.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        SendFromFilter(answer.get());
    }
    return true;
}

bool CDbusPort::IsRefused(DBusMessage* message, std::string const& sender, types::CValueList& list)
{
    dbus::SObjection objection = dbus::objectionTo(message, list);
    bool const isCall = dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (objection.error == nullptr && isCall && !(m_bUseAsync && HasFunctionCallListener()))
    {
        // It would never be answered, and be kept for as long as the port lives.
        objection = {refusal::UNKNOWN_OBJECT, "nothing takes calls here"};
    }
    if (objection.error == nullptr)
    {
        return false;
    }
    logError() << "CDbusPort::OnDbusMessage refused a " << (isCall ? "call" : "message") << " from " << sender << ": "
               << objection.cause;
    if (isCall)
    {
        AnswerWithError(message, objection.error, objection.cause);
    }
    return true;
}

void CDbusPort::AnswerWithError(DBusMessage* call, char const* error, std::string const& cause)
{
    if (isAnswerable(call))
    {
        dbus::MessagePointer const answer(dbus_message_new_error(call, error, cause.c_str()));
        SendFromFilter(answer.get());
    }
}

void CDbusPort::SendFromFilter(DBusMessage* message)
{
    // Without the send mutex, which a call holds while it waits for the thread that is here. What cannot be written
    // now is written with what the port reads or sends next.
    if (m_connection != nullptr)
    {
        dbus_connection_send(m_connection, message, nullptr);
    }
}

bool CDbusPort::GetOrAddConnection(std::string const& sender, int& connectionId)
{
    std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
    auto const known = m_connectionIds.find(sender);
    if (known != m_connectionIds.end())
    {
        connectionId = known->second;
        return false;
    }
    connectionId = StoreConnection(sender);
    return true;
}

void CDbusPort::HandleCallback(types::CValueList& list)
{
    if (!IsReadBy(EReader::Thread))
    {
        OnCallback(list);
        return;
    }
    // The reading thread completes calls too, so handlers, which may make some, run on another.
    {
        std::lock_guard<std::mutex> const lock(m_io->mutex);
        m_io->deliveries.push_back({std::move(list), nullptr});
    }
    m_io->changed.notify_all();
}

void CDbusPort::HandleFunctionCall(types::CValueList const& list, int connectionId, DBusMessage* message)
{
    // Released by the reply alone: a call that is never answered keeps its message.
    dbus_message_ref(message);
    {
        std::lock_guard<std::mutex> const lock(m_io->mutex);
        m_io->unanswered.insert(message);
    }
    auto const answered = std::make_shared<std::atomic<bool>>(false);
    OnFunctionCall(list, connectionId, [this, message, answered](types::CValueList const& result) {
        CCancellationGuard const guard;
        if (answered->exchange(true))
        {
            return;
        }
        internal_guarded::CRun run;
        run.Enter(m_io->senders);
        dbus::MessagePointer const call(message);
        {
            std::lock_guard<std::mutex> const lock(m_io->mutex);
            m_io->unanswered.erase(message);
        }
        // The bus lets no answer pass that nobody waits for, and sends an error about it.
        if (m_options.peers == EPeers::Trusted || isAnswerable(message))
        {
            SendFunctionResult(message, result);
        }
    });
}

std::string CDbusPort::GetOrInsertName(int connectionId)
{
    std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
    return m_connectionNames[connectionId];
}

DBusMessage* CDbusPort::AskBus(char const* question, std::string const& name, bool& lost) const
{
    if (m_connection == nullptr || !dbus_validate_bus_name(name.c_str(), nullptr))
    {
        return nullptr;
    }
    dbus::MessagePointer const asked(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, question));
    char const* const text = name.c_str();
    dbus_message_append_args(asked.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    std::unique_lock<std::recursive_mutex> lock(m_sendMutex);
    dbus::SCallFailure failure;
    DBusMessage* const answer = SendAndWait(asked.get(), -1, failure, lock);
    DropUndelivered();
    lost = IsLost();
    return answer;
}

bool CDbusPort::HasOwner(std::string const& name, bool& lost) const
{
    dbus::MessagePointer const answer(AskBus("NameHasOwner", name, lost));
    dbus_bool_t hasOwner = FALSE;
    return answer != nullptr &&
           dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_BOOLEAN, &hasOwner, DBUS_TYPE_INVALID) && hasOwner;
}

void CDbusPort::DropUndelivered() const
{
    if (m_bUseAsync || !IsReadBy(EReader::Nobody))
    {
        return;
    }

    // Calls read whatever arrives. What nobody is going to dispatch would pile up until libdbus stops reading.
    while (dbus::MessagePointer const message{dbus_connection_pop_message(m_connection)})
    {
        m_io->Drop(m_connection, message.get());
    }
}

bool CDbusPort::SendCallback(types::CValueList const& callback, int connectionId)
{
    CCancellationGuard const guard;
    internal_guarded::CRun run;
    run.Enter(m_io->senders);
    RequireAsynchronous();
    std::string const destination = GetOrInsertName(connectionId);
    logDebug() << "CDbusPort::SendMessage from " << m_name << " to " << destination;
    if (HasTooMuchToSend()) // before the bus is asked anything: one that takes nothing answers nothing
    {
        logError() << "CDbusPort::SendCallback to " << destination << " refused: more than "
                   << m_options.maxPendingBytes << " bytes wait to be sent";
        return false;
    }
    std::size_t const size = m_io->unread.SizeOf(callback);
    if (HasTooMuchUnread(destination, size, false))
    {
        logError() << "CDbusPort::SendCallback to " << destination << " refused: " << UNREAD;
        return false;
    }
    if (!IsConnected(connectionId))
    {
        logDebug() << "CDbusPort::SendCallback failed, can't connect to " << destination;
        return false;
    }
    std::string const why = dbus::whyNotSendable(callback);
    if (!why.empty())
    {
        logError() << "CDbusPort::SendCallback to " << destination << " refused: " << why;
        return false;
    }
    dbus::MessagePointer const message(dbus::valueListToCallback(destination, callback));
    return SendCounted(message.get(), destination, size);
}

bool CDbusPort::HasTooMuchToSend() const
{
    return m_options.maxPendingBytes != 0 && m_connection != nullptr &&
           static_cast<std::size_t>(dbus_connection_get_outgoing_size(m_connection)) > m_options.maxPendingBytes;
}

bool CDbusPort::SendFunctionResult(DBusMessage* call, types::CValueList const& list)
{
    CCancellationGuard const guard;
    RequireAsynchronous();
    if (refusal::CRefusal const* const refused = refusal::find(list))
    {
        dbus::SErrorReply const reply = dbus::errorReplyFor(*refused);
        logDebug() << "CDbusPort::SendFunctionResult to " << types::toString(dbus_message_get_sender(call))
                   << " refuses: " << reply.name << ": " << reply.text;
        dbus::MessagePointer const error(dbus_message_new_error(call, reply.name.c_str(), reply.text.c_str()));
        return Send(error.get());
    }
    std::string const caller = types::toString(dbus_message_get_sender(call));
    std::size_t const size = m_io->unread.SizeOf(list);
    // Where peers are trusted, a value of a class that cannot be sent is thrown at whoever answers.
    bool const isTrusted = m_options.peers == EPeers::Trusted;
    std::string const why = HasTooMuchUnread(caller, size, true) ? UNREAD
                            : isTrusted                          ? dbus::whyNotSendable(list)
                                                                 : dbus::failureToSendAnything(list).reason;
    if (!why.empty())
    {
        logError() << "CDbusPort::SendFunctionResult to " << caller << " refused: " << why;
        dbus::MessagePointer const error(dbus_message_new_error(call, DBUS_ERROR_FAILED, why.c_str()));
        Send(error.get());
        return false;
    }
    dbus::MessagePointer const reply(dbus::valueListToFunctionResult(call, list));
    return SendCounted(reply.get(), caller, size);
}

bool CDbusPort::Send(DBusMessage* message)
{
    std::lock_guard<std::recursive_mutex> const lock(m_sendMutex);
    return m_connection != nullptr && dbus_connection_send(m_connection, message, nullptr);
}

void CDbusPort::RequireSynchronous() const
{
    if (m_bUseAsync)
    {
        logFatal() << "m_bUseAsync is true. Please check type when dbus created";
        std::abort();
    }
}

void CDbusPort::RequireAsynchronous() const
{
    if (!m_bUseAsync)
    {
        logFatal() << "m_bUseAsync is false. Please check type when dbus created";
        std::abort();
    }
}

bool CDbusPort::IsReadBy(EReader reader) const
{
    std::lock_guard<std::mutex> const lock(m_io->mutex);
    return m_io->reader == reader;
}

bool CDbusPort::StartReading(EReader reader)
{
    RequireSynchronous();
    if (m_connection == nullptr)
    {
        return false;
    }
    if (reader == EReader::Loop && IsReadBy(reader))
    {
        return true;
    }
    // A call that is under way reads the connection itself: not two at once.
    std::lock_guard<std::recursive_mutex> const sendLock(m_sendMutex);
    {
        std::lock_guard<std::mutex> const lock(m_io->mutex);
        if (m_io->reader != EReader::Nobody)
        {
            logFatal() << "CDbusPort callbacks are delivered already";
            std::abort();
        }
        m_io->reader = reader;
    }
    if (reader == EReader::Loop)
    {
        // At its default limit the bus library would stop reading, the answers included that a call reads past
        // callbacks which the loop has yet to dispatch.
        dbus_connection_set_max_received_size(m_connection, std::numeric_limits<long>::max());
    }
    Filter();
    m_io->asyncCalls.Accept(m_connection);
    return true;
}

void CDbusPort::StopReading()
{
    Unfilter();
    m_io->asyncCalls.EndAll("nothing reads the port any more"); // while ends are still handed to the other thread
    m_io->SetReader(EReader::Nobody);
}

void CDbusPort::Filter()
{
    dbus_connection_add_filter(m_connection, &CIo::OnMessage, this, nullptr);
    m_io->Attach(m_connection);
    m_io->filtering = true;
}

void CDbusPort::Unfilter()
{
    // libdbus ends the process when a filter is removed that was never added.
    if (m_io->filtering.exchange(false))
    {
        CIo::Detach(m_connection);
        dbus_connection_remove_filter(m_connection, &CIo::OnMessage, this);
    }
}

int CDbusPort::GetPollFd()
{
    CCancellationGuard const guard;
    return StartReading(EReader::Loop) ? m_io->GetPollFd() : -1;
}

void CDbusPort::DispatchCallbacks()
{
    CCancellationGuard const guard;
    RequireOutside("CDbusPort::DispatchCallbacks");
    if (!StartReading(EReader::Loop))
    {
        return;
    }
    m_io->Drain();
    m_io->asyncCalls.Expire();
    RunDeliveries();
    if (!DispatchSome())
    {
        m_io->Kick(); // there is more: the descriptor stays readable
    }
    else if (!dbus_connection_get_is_connected(m_connection))
    {
        m_io->StopWatching();
        return;
    }
    m_io->WatchForLoop(m_connection);
}

bool CDbusPort::DispatchSome()
{
    CIo::CInside const inside(*m_io);
    for (int passes = 0; passes < DISPATCH_LIMIT; ++passes)
    {
        m_io->Read(m_connection);
        m_io->KickInstead(); // an answer may be behind what is handled now
        dbus::MessagePointer const message = m_io->TakeNext(m_connection);
        if (message == nullptr)
        {
            return true;
        }
        m_io->Dispatch(m_connection, message.get());
    }
    return false;
}

void CDbusPort::RequireOutside(char const* operation) const
{
    if (m_io->IsInside())
    {
        logFatal() << operation << " called by a listener that the port runs";
        std::abort();
    }
}

} // namespace nelo_rpc
