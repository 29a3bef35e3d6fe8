#include <nelo_rpc/testing/CScriptedServer.h>

#include <nelo_rpc/Refusal.h>

#include <algorithm>
#include <set>

namespace nelo_rpc::test
{

namespace
{

/// The text, or the number, under a reserved index; something empty if there is none.
template <class T>
T reservedAt(types::CValueList const& list, int index)
{
    auto const entry = list.find(index);
    bool const isThere = entry != list.end() && types::hasType<T>(*entry->second);
    return isThere ? types::extract<T>(*entry->second) : T();
}

types::CValueList withoutReserved(types::CValueList const& list)
{
    types::CValueList args;
    args.insert(list.lower_bound(0), list.end());
    return args;
}

template <class T>
types::CValueList listOf(T const& value)
{
    types::CValueList list;
    list[0] = types::packValue<T>(value);
    return list;
}

} // namespace

CScriptedServer::CScriptedServer(CRpcPort& port) : m_port(port), m_lastActorId(0)
{
    m_port.SetFunctionCallListener([this](types::CValueList const& list, int connectionId,
                                          CRpcPort::ReplyFunction const& reply) { OnCall(list, connectionId, reply); });
}

CScriptedServer::~CScriptedServer()
{
    m_port.SetFunctionCallListener({});
}

void CScriptedServer::AnswerWithList(std::string const& function, types::CValueList const& result)
{
    SetScript(function, {EWay::Answer, [result](types::CValueList const&) { return result; }});
}

void CScriptedServer::StaySilent(std::string const& function)
{
    SetScript(function, {EWay::StaySilent, {}});
}

void CScriptedServer::Refuse(std::string const& function, std::string const& error, std::string const& cause)
{
    AnswerWithList(function, refusal::make(error, cause));
}

void CScriptedServer::SetScript(std::string const& function, SScript script)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_scripts[function] = std::move(script);
}

void CScriptedServer::OnCall(types::CValueList const& list, int connectionId, CRpcPort::ReplyFunction const& reply)
{
    SCall const call{reservedAt<std::string>(list, protocol::TYPE_NAME), reservedAt<int>(list, protocol::ACTOR_ID),
                     reservedAt<std::string>(list, protocol::METHOD_NAME), withoutReserved(list), connectionId};
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_calls.push_back(call);
    }
    m_called.notify_all();

    SScript const script = FindScript(call.function);
    if (script.way == EWay::StaySilent)
    {
        return;
    }
    RemakeIfLost(call);
    if (script.answer)
    {
        reply(script.answer(list));
        return;
    }
    bool const isOwn = call.actorId == protocol::OWN_ACTOR_ID;
    if (isOwn && call.function == protocol::CTOR)
    {
        reply(MakeActor(connectionId));
    }
    else if (isOwn && call.function == protocol::DTOR)
    {
        reply(DestroyActor(call.args));
    }
    else
    {
        reply({});
    }
}

CScriptedServer::SScript CScriptedServer::FindScript(std::string const& function) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const script = m_scripts.find(function);
    return script != m_scripts.end() ? script->second : SScript{EWay::Answer, {}};
}

types::CValueList CScriptedServer::MakeActor(int connectionId)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_actors[++m_lastActorId] = connectionId;
    return listOf(m_lastActorId);
}

types::CValueList CScriptedServer::DestroyActor(types::CValueList const& args)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_actors.erase(reservedAt<int>(args, 0));
    return listOf(true);
}

void CScriptedServer::RemakeIfLost(SCall const& call)
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (call.actorId == protocol::OWN_ACTOR_ID || !m_actors.emplace(call.actorId, call.connectionId).second)
        {
            return;
        }
    }
    SendTo(call.connectionId, call.actorId, protocol::ON_RECREATE, {});
}

bool CScriptedServer::SendList(int actorId, std::string const& callback, types::CValueList list)
{
    int connectionId = 0;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const actor = m_actors.find(actorId);
        if (actor == m_actors.end())
        {
            return false;
        }
        connectionId = actor->second;
    }
    return SendTo(connectionId, actorId, callback, std::move(list));
}

bool CScriptedServer::SendTo(int connectionId, int actorId, std::string const& callback, types::CValueList list)
{
    list[protocol::ACTOR_ID] = types::makeValue<int>(actorId);
    list[protocol::METHOD_NAME] = types::makeValue<std::string>(callback);
    return m_port.SendCallback(list, connectionId);
}

void CScriptedServer::LoseActors()
{
    std::set<int> clients;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        for (auto const& [id, connectionId] : m_actors)
        {
            clients.insert(connectionId);
        }
        m_actors.clear();
    }
    for (int const connectionId : clients)
    {
        SendTo(connectionId, protocol::OWN_ACTOR_ID, protocol::ON_KILL, {});
    }
}

std::vector<CScriptedServer::SCall> CScriptedServer::GetCalls(std::string const& function) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    std::vector<SCall> calls;
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(calls),
                 [&](SCall const& call) { return call.function == function; });
    return calls;
}

bool CScriptedServer::WaitForCalls(std::string const& function, std::size_t count,
                                   std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_called.wait_for(lock, limit, [&] {
        auto const came =
            std::count_if(m_calls.begin(), m_calls.end(), [&](SCall const& call) { return call.function == function; });
        return static_cast<std::size_t>(came) >= count;
    });
}

std::vector<int> CScriptedServer::GetActorIds() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    std::vector<int> ids;
    for (auto const& [id, connectionId] : m_actors)
    {
        ids.push_back(id);
    }
    return ids;
}

} // namespace nelo_rpc::test
