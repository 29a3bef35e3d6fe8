#include <nelo_rpc/CClientConnection.h>

#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Refusal.h>
#include <nelo_rpc/Values.h>

#include "CHostCore.h"
#include "SystemLog.h"

#include <algorithm>
#include <exception>
#include <string>

namespace nelo_rpc
{

namespace
{

constexpr std::size_t LONGEST_NAME = 100;
constexpr std::size_t LONGEST_EXCEPTION = 500;

/// What a peer sent, or had a say in, as it may stand in a log line and an error reply: on one line, and not for ever.
std::string shown(std::string const& name, std::size_t longest = LONGEST_NAME)
{
    std::size_t length = std::min(name.size(), longest);
    while (length < name.size() && length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
    {
        --length; // not inside a character
    }
    std::string text = name.substr(0, length);
    for (char& character : text)
    {
        bool const isControl = static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
        character = isControl ? '?' : character;
    }
    return length < name.size() ? text + "..." : text;
}

types::CValueList unknownActor(int actorId)
{
    return refusal::make(refusal::UNKNOWN_OBJECT, "there is no actor " + std::to_string(actorId));
}

types::CValueList objectionToCall(CActor const& actor, std::string const& function, types::CValueList const& call)
{
    if (!actor.HasFunction(function))
    {
        return refusal::make(refusal::UNKNOWN_METHOD,
                             shown(actor.GetTypeName()) + " has no function " + shown(function));
    }
    int const unfit = actor.FindUnfitArgument(function, call);
    if (unfit == -1)
    {
        return {};
    }
    std::string const which = "argument " + std::to_string(unfit) + " of " + shown(function);
    bool const isMissing = call.count(unfit) == 0;
    return refusal::make(refusal::INVALID_ARGS,
                         which + (isMissing ? " is missing" : " has another type than the function takes"));
}

} // namespace

/// A call whose reserved entries were read.
struct CClientConnection::SRequest
{
    explicit SRequest(types::CValueList const& c)
        : call(c),
          actorId(types::unpackAt<int>(c, protocol::ACTOR_ID)),
          typeName(types::unpackAt<std::string>(c, protocol::TYPE_NAME)),
          function(types::unpackAt<std::string>(c, protocol::METHOD_NAME))
    {
    }

    types::CValueList const& call;
    int const actorId;
    std::string const typeName;
    std::string const function;
};

bool CClientConnection::IsRefusedAsTooMany(CRpcPort::ReplyFunction const& reply)
{
    if (m_unanswered == nullptr || *m_unanswered < m_core->GetOptions().maxQueuedCalls)
    {
        m_isRefusing = false;
        return false;
    }
    auto const refusal = refusal::make(refusal::LIMITS_EXCEEDED, "too many calls of this client wait for an answer");
    if (m_isRefusing)
    {
        reply(refusal); // without a line of its own: a client that floods the server would flood the log too
        return true;
    }
    m_isRefusing = true;
    m_core->Refuse(m_connectionId, refusal, reply);
    return true;
}

bool CClientConnection::IsChecked() const
{
    SHostOptions const& options = m_core->GetOptions();
    return options.peers == EPeers::Untrusted || options.maxActors > 0 || options.authorize;
}

void CClientConnection::CarryOutChecked(types::CValueList const& call, CRpcPort::ReplyFunction const& reply)
{
    SRequest const request(call);
    if (m_core->GetOptions().peers == EPeers::Trusted)
    {
        CarryOutUnlessRefused(request, reply);
        return;
    }
    try
    {
        CarryOutUnlessRefused(request, reply);
    }
    catch (std::exception const& exception)
    {
        // Not all of them, because a killed worker unwinds as well. What it says may be nobody's business but the
        // server's.
        logError() << "CClientConnection::OnFunctionCallSync " << shown(request.typeName) << ":"
                   << shown(request.function)
                   << " ended with an exception: " << shown(exception.what(), LONGEST_EXCEPTION);
        reply(refusal::make(refusal::FAILED, shown(request.function) + " ended with an exception"));
    }
}

void CClientConnection::CarryOutUnlessRefused(SRequest const& request, CRpcPort::ReplyFunction const& reply)
{
    types::CValueList objection = ObjectionTo(request);
    std::shared_ptr<CActor> actor;
    if (objection.empty())
    {
        actor = FindOrRecreateFor(request, objection);
    }
    if (!objection.empty())
    {
        m_core->Refuse(m_connectionId, objection, reply);
        return;
    }
    reply(actor->CallFunction(request.function, request.call));
}

std::shared_ptr<CActor> CClientConnection::FindActor(int actorId)
{
    auto const lock = LockTable();
    auto const entry = m_knownActors.find(actorId);
    return entry == m_knownActors.end() || entry->second == nullptr ? nullptr : Hold(*entry->second);
}

std::shared_ptr<CActor> CClientConnection::FindOrRecreateFor(SRequest const& request, types::CValueList& objection)
{
    if (m_core->GetOptions().peers == EPeers::Trusted)
    {
        return FindOrRecreateActor(request.actorId, request.typeName);
    }
    if (auto actor = FindActor(request.actorId))
    {
        return actor;
    }
    // What can be called is known once the actor is set up. One that is then not called is not kept.
    return Recreate(request.actorId, request.typeName, [&](CActor const& actor) {
        objection = objectionToCall(actor, request.function, request.call);
        return objection.empty();
    });
}

types::CValueList CClientConnection::ObjectionTo(SRequest const& request)
{
    bool const isUntrusted = m_core->GetOptions().peers == EPeers::Untrusted;
    auto actor = FindActor(request.actorId);
    types::CValueList objection = isUntrusted ? ObjectionToTarget(request, actor.get()) : types::CValueList();
    if (actor == nullptr && request.typeName == TYPENAME)
    {
        actor = Hold(*m_ownActor); // where peers are trusted, any id reaches it under its own type
    }
    if (objection.empty())
    {
        objection = ObjectionToPeer(request, actor.get());
    }
    if (objection.empty())
    {
        objection = ObjectionToNumber(request, actor.get());
    }
    if (objection.empty() && isUntrusted && actor != nullptr)
    {
        objection = objectionToCall(*actor, request.function, request.call);
    }
    return objection;
}

types::CValueList CClientConnection::ObjectionToTarget(SRequest const& request, CActor const* actor)
{
    if (actor == nullptr)
    {
        return ObjectionToLostActor(request);
    }
    if (request.typeName != actor->GetTypeName())
    {
        return refusal::make(refusal::INVALID_ARGS,
                             "actor " + std::to_string(request.actorId) + " is not of type " + shown(request.typeName));
    }
    return actor == m_ownActor ? ObjectionToOwnFunction(request) : types::CValueList();
}

types::CValueList CClientConnection::ObjectionToLostActor(SRequest const& request)
{
    // No server hands out such an id, and the connection's own actor is never lost.
    bool const wasNever = request.actorId <= 0 || request.typeName == TYPENAME;
    return wasNever ? unknownActor(request.actorId) : ObjectionToType(request.typeName);
}

types::CValueList CClientConnection::ObjectionToOwnFunction(SRequest const& request)
{
    types::CValueList objection = objectionToCall(*m_ownActor, request.function, request.call);
    if (objection.empty() && request.function == protocol::CTOR)
    {
        std::string const typeName = types::unpackAt<std::string>(request.call, 0);
        return typeName == TYPENAME ? types::CValueList() : ObjectionToType(typeName);
    }
    if (objection.empty() && request.function == protocol::DTOR)
    {
        int const actorId = types::unpackAt<int>(request.call, 0);
        return FindActor(actorId) == nullptr ? unknownActor(actorId) : types::CValueList();
    }
    return objection;
}

types::CValueList CClientConnection::ObjectionToType(std::string const& typeName)
{
    return LookUpType(typeName) == nullptr ? refusal::make(refusal::INVALID_ARGS, "unknown type " + shown(typeName))
                                           : types::CValueList();
}

types::CValueList CClientConnection::ObjectionToNumber(SRequest const& request, CActor const* actor)
{
    std::size_t const limit = static_cast<std::size_t>(m_core->GetOptions().maxActors);
    bool const isCtor = actor == m_ownActor && request.function == protocol::CTOR;
    bool const isMaking = isCtor ? types::unpackAt<std::string>(request.call, 0) != TYPENAME : actor == nullptr;
    if (limit == 0 || !isMaking)
    {
        return {};
    }
    auto const lock = LockTable();
    std::size_t const others = m_knownActors.size() - 1;
    return others < limit ? types::CValueList()
                          : refusal::make(refusal::LIMITS_EXCEEDED, "the client has as many actors as it may have");
}

types::CValueList CClientConnection::ObjectionToPeer(SRequest const& request, CActor const* actor)
{
    auto const& authorize = m_core->GetOptions().authorize;
    if (!authorize)
    {
        return {};
    }
    auto const peer = FindPeer();
    if (peer == nullptr)
    {
        return refusal::make(refusal::ACCESS_DENIED, "the bus does not say who the client is");
    }
    std::string const typeName = FindTypeOfTarget(request, actor);
    auto const isAllowed = [&](std::string const& function) {
        CCancellationWindow const window;
        return authorize(*peer, typeName, function);
    };
    // Else whoever may not make an actor would call one that is lost.
    bool const mayMake = actor != nullptr || isAllowed(protocol::CTOR);
    return mayMake && isAllowed(request.function)
               ? types::CValueList()
               : refusal::make(refusal::ACCESS_DENIED,
                               shown(request.function) + " of " + shown(typeName) + " is not allowed");
}

std::string CClientConnection::FindTypeOfTarget(SRequest const& request, CActor const* actor)
{
    if (actor == nullptr)
    {
        return request.typeName; // what it will be made of
    }
    if (actor == m_ownActor && request.function == protocol::CTOR)
    {
        return types::unpackAt<std::string>(request.call, 0);
    }
    if (actor == m_ownActor && request.function == protocol::DTOR)
    {
        auto const doomed = FindActor(types::unpackAt<int>(request.call, 0));
        return doomed != nullptr ? doomed->GetTypeName() : TYPENAME;
    }
    return actor->GetTypeName();
}

std::shared_ptr<SPeer const> CClientConnection::FindPeer()
{
    {
        auto const lock = LockTable();
        if (m_peer != nullptr)
        {
            return m_peer;
        }
    }
    auto const found = m_core->FindPeer(m_connectionId); // unlocked: asks the bus
    auto peer = found ? std::make_shared<SPeer const>(*found) : nullptr;
    auto const lock = LockTable();
    m_peer = peer;
    return peer;
}

int CClientConnection::TakeActorId()
{
    int actorId = ++lastActorId; // which may be the lowest number, after the highest
    while (m_core->GetOptions().peers == EPeers::Untrusted && (actorId <= 0 || FindActor(actorId) != nullptr))
    {
        // A call for a lost actor may have taken the id, and the actor that has it must not be left behind. And a
        // client that has patience can use up all ids: after the last one the first ones come again.
        if (actorId <= 0)
        {
            int lowest = actorId;
            lastActorId.compare_exchange_strong(lowest, 0);
        }
        actorId = ++lastActorId;
    }
    return actorId;
}

} // namespace nelo_rpc
