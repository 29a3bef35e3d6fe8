#include <nelo_rpc/dbusport/CDbusPort.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include "../SystemLog.h"
#include "CDbusPortIo.h"
#include "CDbusPortWatch.h"
#include "CallFailure.h"
#include "Deadline.h"
#include "PolicyHints.h"

#include <utility>

namespace nelo_rpc
{

namespace
{

using dbus::SCallFailure;

/// Gives the reply to the caller, or turns an error reply into a failure.
DBusMessage* replyOrFailure(dbus::MessagePointer reply, SCallFailure& failure)
{
    dbus::CError error;
    if (reply != nullptr && dbus_set_error_from_message(error.Get(), reply.get()))
    {
        failure = dbus::failureOf(*error.Get());
        return nullptr;
    }
    return reply.release();
}

/// Reads the reply, and says in the log what is wrong if there is none that can be read.
CCallResult resultOf(dbus::MessagePointer reply, SCallFailure failure, bool isTrusted, std::string const& destination)
{
    types::CValueList list;
    bool const isChecked = !isTrusted && reply != nullptr;
    std::string const cause = isChecked ? dbus::readValueList(reply.get(), list) : "";
    if (!cause.empty())
    {
        failure = {ECallStatus::BadValue, "ill-formed reply: " + cause};
        reply.reset();
    }
    if (failure)
    {
        logError() << "Dbus error: " << failure.reason;
        dbus::hintAtCallPolicy(failure.reason, destination);
    }
    if (!isChecked)
    {
        list = dbus::dbusMessageToValueList(reply.get());
    }
    if (reply == nullptr)
    {
        logError() << "CDbusPort::SendMessage received empty reply";
    }
    return failure ? CCallResult(failure.status, failure.reason) : CCallResult(std::move(list));
}

} // namespace

SCallFailure CDbusPort::FindObstacle(std::string const& destination, int timeoutMs, types::CValueList const& call,
                                     bool looksForTags) const
{
    if (m_connection == nullptr)
    {
        return {ECallStatus::Disconnected, "no connection to the bus"};
    }
    SCallFailure failure = dbus::failureToCall(destination, timeoutMs);
    if (failure)
    {
        return failure;
    }
    return looksForTags ? dbus::failureToSendAnything(call) : dbus::failureToSend(call);
}

types::CValueList CDbusPort::CallFunction(types::CValueList const& call, int connectionId)
{
    CCancellationGuard const guard;
    return Call(call, connectionId, nullptr).TakeList();
}

CCallResult CDbusPort::RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options)
{
    CCancellationGuard const guard;
    return Call(call, connectionId, &options);
}

CCallResult CDbusPort::Call(types::CValueList const& call, int connectionId, CCallOptions const* options)
{
    RequireSynchronous();
    std::string const destination = GetOrInsertName(connectionId);
    logDebug() << "CDbusPort::SendMessage from " << m_name << " to " << destination;
    int timeoutMs = options != nullptr ? options->GetTimeoutMs().value_or(m_timeoutMs) : m_timeoutMs.load();
    SCallFailure failure = FindObstacle(destination, timeoutMs, call, options != nullptr);
    dbus::MessagePointer reply;
    // The port may be destroyed while the call is under way.
    auto const watch = m_watch;
    bool const isTrusted = m_options.peers == EPeers::Trusted;
    bool lost = false;
    if (!failure)
    {
        dbus::MessagePointer const message(dbus::valueListToFunctionCall(destination, call));
        // Of a call with options the wait for others counts.
        Deadline const deadline = options != nullptr ? deadlineIn(timeoutMs) : Deadline::max();
        std::unique_lock<CTurn> const turn(m_io->callTurn, deadline);
        timeoutMs = deadline == Deadline::max() ? timeoutMs : millisecondsTo(deadline);
        // The port's own time-out may be 0: the call is sent, and nobody waits for its answer.
        if (turn.owns_lock() && (timeoutMs != 0 || options == nullptr))
        {
            std::unique_lock<std::recursive_mutex> lock(m_sendMutex);
            reply.reset(SendAndWait(message.get(), timeoutMs, failure, lock));
            DropUndelivered();
            lost = IsLost();
        }
        else
        {
            failure = dbus::tooLate();
        }
    }
    CCallResult result = resultOf(std::move(reply), std::move(failure), isTrusted, destination);
    if (lost)
    {
        watch->TellLoss();
    }
    return result;
}

DBusMessage* CDbusPort::SendAndWait(DBusMessage* message, int timeoutMs, SCallFailure& failure,
                                    std::unique_lock<std::recursive_mutex>& sendLock) const
{
    bool const isReceived = m_bUseAsync && m_io->filtering;
    dbus::CError error;
    if (!isReceived && IsReadBy(EReader::Nobody))
    {
        DBusMessage* const reply =
            dbus_connection_send_with_reply_and_block(m_connection, message, timeoutMs, error.Get());
        failure = error.IsSet() ? dbus::failureOf(*error.Get()) : SCallFailure();
        return reply;
    }
    bool const isConnected = dbus_connection_get_is_connected(m_connection);
    if (isConnected && isReceived && (m_io->IsInside() || !IsReadBy(EReader::Receiver)))
    {
        sendLock.unlock();
        m_io->Flush(m_connection, deadlineIn(timeoutMs)); // as a question on this connection would
        return m_io->side.Ask(message, timeoutMs);        // nobody takes the answer while this thread waits
    }
    dbus::MessagePointer reply;
    if (isConnected && (!m_io->IsInside() || IsReadBy(EReader::Loop)))
    {
        CIo::CQuestion question(*m_io, m_connection);
        bool const sent = question.Send(message);
        if (isReceived)
        {
            sendLock.unlock(); // a listener may want it, on the thread that has to take the answer
        }
        reply.reset(sent ? question.Wait(deadlineIn(timeoutMs)) : nullptr);
    }
    if (reply == nullptr)
    {
        failure = dbus_connection_get_is_connected(m_connection)
                      ? dbus::tooLate()
                      : SCallFailure{ECallStatus::Disconnected, "the connection to the bus is closed"};
    }
    return replyOrFailure(std::move(reply), failure);
}

void CDbusPort::StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options, CallDone done)
{
    CCancellationGuard const guard;
    RequireSynchronous();
    if (!m_io->asyncCalls.IsAccepting())
    {
        done(Call(call, connectionId, &options)); // nobody reads what would come
        return;
    }
    int const timeoutMs = options.GetTimeoutMs().value_or(m_timeoutMs);
    auto started = std::make_shared<CAsyncCalls::SCall>();
    started->destination = GetOrInsertName(connectionId);
    logDebug() << "CDbusPort::SendMessage from " << m_name << " to " << started->destination;
    started->done = std::move(done);
    started->failure = FindObstacle(started->destination, timeoutMs, call, true);
    started->deadline = deadlineIn(timeoutMs);
    if (!started->failure)
    {
        started->message.reset(dbus::valueListToFunctionCall(started->destination, call));
    }
    if (!m_io->asyncCalls.Start(started))
    {
        started->done(Call(call, connectionId, &options)); // the reader has ended at this very moment
        return;
    }
    m_io->WatchForLoop(m_connection);
}

void CDbusPort::EndAsyncCalls(char const* reason)
{
    m_io->asyncCalls.EndAll(reason);
    RunDeliveries();
}

void CDbusPort::RunDeliveries()
{
    CIo::CInside const inside(*m_io);
    for (CIo::SDelivery const& delivery : m_io->TakeDeliveries())
    {
        if (delivery.ended != nullptr) // nobody but a delivery's thread runs the handlers of callbacks
        {
            m_io->Complete(*delivery.ended);
        }
    }
}

void CDbusPort::CIo::Complete(CAsyncCalls::SCall& call) noexcept
{
    CRpcPort::CallDone const done = std::move(call.done);
    bool const isTrusted = m_port.m_options.peers == EPeers::Trusted;
    dbus::MessagePointer reply(replyOrFailure(std::move(call.reply), call.failure));
    done(resultOf(std::move(reply), std::move(call.failure), isTrusted, call.destination));
}

} // namespace nelo_rpc
