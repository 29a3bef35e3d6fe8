#include <nelo_rpc/CActor.h>

#include <nelo_rpc/CClientConnection.h>
#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"

#include <utility>

namespace nelo_rpc
{

CActor::CActor(CClientConnection& connection, int id, std::string typeName, void* object)
    : m_connection(connection), m_id(id), m_typeName(std::move(typeName)), m_object(object)
{
    AddCallback(protocol::ON_RECREATE, m_recreateSender);
}

CActor::~CActor()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CActor::~CActor actor=" << this << " id=" << m_id;
}

int CActor::GetId() const
{
    return m_id;
}

std::string CActor::GetTypeName() const
{
    return m_typeName;
}

void* CActor::GetObject() const
{
    return m_object;
}

CCallbackSender<>& CActor::GetRecreateSender()
{
    return m_recreateSender;
}

bool CActor::HasFunction(std::string const& name) const
{
    return m_functions.count(name) != 0;
}

types::CValueList CActor::CallFunction(std::string const& name, types::CValueList const& args) const
{
    CCancellationGuard const guard;
    logDebug() << "CallFunction " << name;
    auto const entry = m_functions.find(name);
    if (entry == m_functions.end())
    {
        logError() << name << " should exist in list";
        return {};
    }
    auto const function = entry->second;
    return (*function)(args);
}

void CActor::AddFunction(std::string const& name, ValueListFunction function)
{
    auto windowed = [function = std::move(function)](types::CValueList const& args) {
        CCancellationWindow const window;
        return function(args);
    };
    Insert(name, std::move(windowed), nullptr);
}

void CActor::Insert(std::string const& name, ValueListFunction function, ArgumentCheck check)
{
    CCancellationGuard const guard;
    m_functions[name] = std::make_shared<ValueListFunction const>(std::move(function));
    m_argumentChecks[name] = check;
}

void CActor::AddCallback(std::string const& name, ICallback& callback)
{
    CCancellationGuard const guard;
    callback.AddActor(this, name);
    {
        std::lock_guard<std::mutex> const lock(m_callbacksMutex);
        if (!m_isAbandoned)
        {
            m_callbacks.insert(&callback);
            return;
        }
    }
    callback.RemoveActor(this);
}

void CActor::RemoveCallback(ICallback& callback)
{
    CCancellationGuard const guard;
    callback.RemoveActor(this);
    std::lock_guard<std::mutex> const lock(m_callbacksMutex);
    m_callbacks.erase(&callback);
}

void CActor::CleanCallbacks()
{
    CCancellationGuard const guard;
    // One by one, so that the handler of a kill takes up where a worker that was cut off has got to.
    while (ICallback* const callback = TakeCallback())
    {
        logDebug() << "CActor::~CActor removing self from callback " << callback;
        callback->RemoveActor(this);
    }
}

ICallback* CActor::TakeCallback()
{
    std::lock_guard<std::mutex> const lock(m_callbacksMutex);
    return m_callbacks.empty() ? nullptr : m_callbacks.extract(m_callbacks.begin()).value();
}

void CActor::Abandon()
{
    {
        std::lock_guard<std::mutex> const lock(m_callbacksMutex);
        m_isAbandoned = true; // what a setup that is cut off adds from now on is removed at once
    }
    CleanCallbacks();
}

bool CActor::SendCallback(std::string const& name, types::CValueList const& list) const
{
    CCancellationGuard const guard;
    logDebug() << "CActor(" << m_id << ")::SendCallback";
    return m_connection.SendCallback(m_id, name, list);
}

int CActor::FindUnfitArgument(std::string const& name, types::CValueList const& args) const
{
    CCancellationGuard const guard;
    auto const entry = m_argumentChecks.find(name);
    return entry == m_argumentChecks.end() || entry->second == nullptr ? -1 : entry->second(args);
}

} // namespace nelo_rpc
