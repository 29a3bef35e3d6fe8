#include <nelo_rpc/CClientConnection.h>

#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include "SystemLog.h"

#include <cstdlib>
#include <exception>
#include <utility>

namespace nelo_rpc
{

namespace
{

/// Names the work items; shared by all connections.
std::atomic<int> callCounter{0};

/// The operations, as log lines name them.
constexpr char const* CREATE = "CreateActorWithId";
constexpr char const* DESTROY = "DestroyActor";

} // namespace

// Never destroyed, because threads that are alive at exit still create actors.
std::string const& CClientConnection::TYPENAME = *new std::string(protocol::CONNECTION_TYPE);

std::atomic<int> CClientConnection::lastActorId{0};

/// A received call with its reply, shared by the work item and the kill handler: whoever comes first answers.
struct CClientConnection::SCall
{
    SCall(types::CValueList const& l, CRpcPort::ReplyFunction r, std::shared_ptr<std::atomic<int>> u)
        : list(l), reply(std::move(r)), unanswered(std::move(u))
    {
        if (unanswered != nullptr)
        {
            ++*unanswered;
        }
    }

    /// A call that nobody is left to carry out is answered too.
    ~SCall() { Answer({}); }

    void Answer(types::CValueList const& result)
    {
        if (answered.exchange(true))
        {
            return;
        }
        if (unanswered != nullptr)
        {
            --*unanswered; // before the answer, which the next call may follow at once
        }
        reply(result);
    }

    types::CValueList const list;
    CRpcPort::ReplyFunction const reply;
    std::shared_ptr<std::atomic<int>> const unanswered;
    std::atomic<bool> answered{false};
};

CClientConnection::CClientConnection(CRpcHost& host, int connectionId)
    : m_host(host),
      m_connectionId(connectionId),
      m_ownActor(nullptr),
      m_shutDown(false),
      m_workerEnded(false),
      m_unanswered(host.GetOptions().maxQueuedCalls > 0 ? std::make_shared<std::atomic<int>>(0) : nullptr),
      m_isRefusing(false)
{
    m_ownActor = new CActor(*this, protocol::OWN_ACTOR_ID, TYPENAME, this);
    m_knownActors[protocol::OWN_ACTOR_ID] = m_ownActor;
    m_ownActor->AddFunction(protocol::CTOR, *this, &CClientConnection::ctor);
    m_ownActor->AddFunction(protocol::DTOR, *this, &CClientConnection::dtor);
    m_ownActor->AddCallback(protocol::ON_KILL, m_killSender);
}

CClientConnection::~CClientConnection()
{
    logDebug() << "CClientConnection::~CClientConnection with " << m_knownActors.size()
               << " registered actors (should be 1)";
    delete m_ownActor;
    m_knownActors.clear();
}

void CClientConnection::OnFunctionCall(types::CValueList const& call, CRpcPort::ReplyFunction reply)
{
    logDebug() << "CClientConnection::OnFunctionCall with args=" << types::toString(call);
    if (IsRefusedAsTooMany(reply))
    {
        return;
    }
    std::string const name =
        types::unpackAt<std::string>(call, protocol::METHOD_NAME) + "[" + std::to_string(++callCounter) + "]";
    auto const shared = std::make_shared<SCall>(call, std::move(reply), m_unanswered);

    std::lock_guard<std::mutex> const lock(m_postMutex);
    m_thread.Post(
        [this, shared] {
            if (!m_isClientGone) // else an actor that is made now would stay for ever
            {
                OnFunctionCallSync(shared->list, [&](types::CValueList const& result) { shared->Answer(result); });
            }
        },
        name);
    m_host.GetThreadWatchdog().Ping(
        &m_thread,
        [this, shared] {
            LoseActors();
            shared->Answer({});
            m_killSender.Send();
        },
        name);
}

void CClientConnection::LoseActors()
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (m_workerEnded)
        {
            return; // what is left belongs to the thread that shuts the connection down
        }
    }
    ForgetClaimed();
    DestroyActors(false);
}

void CClientConnection::ForgetClaimed()
{
    // The killed worker was in the middle of destroying these, and their objects may be half gone. They are left
    // alone; a call for one of them finds it lost.
    std::lock_guard<std::mutex> const lock(m_mutex);
    for (auto entry = m_knownActors.begin(); entry != m_knownActors.end();)
    {
        if (m_claimed.count(entry->second) == 0)
        {
            ++entry;
            continue;
        }
        m_leaving.erase(entry->first);
        entry = m_knownActors.erase(entry);
    }
    m_claimed.clear();
}

void CClientConnection::OnFunctionCallSync(types::CValueList const& call, CRpcPort::ReplyFunction const& reply)
{
    CCancellationGuard const guard;
    int const actorId = types::unpackAt<int>(call, protocol::ACTOR_ID);
    std::string const typeName = types::unpackAt<std::string>(call, protocol::TYPE_NAME);
    std::string const methodName = types::unpackAt<std::string>(call, protocol::METHOD_NAME);
    logDebug() << "CClientConnection::OnFunctionCallSync with function=" << typeName << ":" << methodName;
    if (IsChecked())
    {
        CarryOutChecked(call, reply);
        return;
    }
    auto const actor = FindOrRecreateActor(actorId, typeName);
    reply(actor->CallFunction(methodName, call));
}

std::shared_ptr<CActor> CClientConnection::FindOrRecreateActor(int actorId, std::string const& typeName)
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (CActor* const actor = m_knownActors[actorId])
        {
            return Hold(*actor);
        }
    }
    return Recreate(actorId, typeName, {});
}

std::shared_ptr<CActor> CClientConnection::Recreate(int actorId, std::string const& typeName,
                                                    std::function<bool(CActor const& actor)> const& isWanted)
{
    logError() << "Actor is null for actorId=" << actorId << " in connectionId=" << m_connectionId << ", recreating it";
    auto actor = Create(actorId, typeName, isWanted);
    if (actor != nullptr)
    {
        actor->GetRecreateSender().Send();
    }
    return actor;
}

std::shared_ptr<CActor> CClientConnection::Hold(CActor& actor) const
{
    // Actor 0 lives as long as the connection.
    return &actor == m_ownActor ? std::shared_ptr<CActor>(std::shared_ptr<CActor>(), m_ownActor) : actor.m_self;
}

int CClientConnection::ctor(std::string typeName)
{
    CCancellationGuard const guard;
    return Create(TakeActorId(), typeName)->GetId();
}

void CClientConnection::dtor(int actorId)
{
    CCancellationGuard const guard;
    CActor* actor = nullptr;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        actor = m_knownActors[actorId];
    }
    DestroyActor(actor, true);
}

std::shared_ptr<SActorType const> CClientConnection::FindActorType(std::string const& typeName)
{
    auto type = m_host.FindActorType(typeName);
    if (type == nullptr)
    {
        logFatal() << "Unknown type " << typeName;
        std::abort();
    }
    return type;
}

CActor* CClientConnection::CreateActorWithId(int actorId, std::string const& typeName)
{
    CCancellationGuard const guard;
    return Create(actorId, typeName).get();
}

std::shared_ptr<CActor> CClientConnection::Create(int actorId, std::string const& typeName,
                                                  std::function<bool(CActor const& actor)> const& isWanted)
{
    if (typeName == TYPENAME)
    {
        return Hold(*m_ownActor);
    }
    logInconsistency(Info, CREATE, "CClientConnection::ctor typeName= %s", typeName.c_str());
    auto const type = FindActorType(typeName);

    void* object = nullptr;
    {
        CCancellationWindow const window;
        object = type->create();
    }
    auto actor = MakeActor(*type, object, actorId, typeName);
    if (isWanted && !isWanted(*actor))
    {
        DestroyClaimed(actor.get(), true);
        return nullptr;
    }
    Enter(actor.get(), actorId, typeName);
    logDebug() << "CClientConnection::ctor actor=" << actor.get() << " actorId=" << actorId << " done";
    return actor;
}

std::shared_ptr<CActor> CClientConnection::MakeActor(SActorType const& type, void* object, int actorId,
                                                     std::string const& typeName)
{
    // A setup that is killed, or throws, leaves nothing behind that still sends through the actor. Of an object that
    // was being set up when its worker was killed nobody knows the state.
    struct SUnregister
    {
        SActorType const& type;
        int const exceptions = std::uncaught_exceptions();

        void operator()(CActor* actor) const
        {
            actor->CleanCallbacks();
            if (std::uncaught_exceptions() > exceptions)
            {
                type.destroy(actor->GetObject());
            }
        }
    };
    auto actor = std::make_shared<CActor>(*this, actorId, typeName, object);
    std::unique_ptr<CActor, SUnregister> unfinished(actor.get(), SUnregister{type});
    {
        CCancellationWindow const window;
        type.setup(*actor);
    }
    actor->m_self = actor;
    static_cast<void>(unfinished.release());
    return actor;
}

void CClientConnection::Enter(CActor* actor, int actorId, std::string const& typeName)
{
    std::size_t known = 0;
    void const* current = nullptr;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        known = m_knownActors.size();
        current = m_knownActors[actorId];
    }
    logInconsistency(Error, CREATE,
                     "actor id=%d, knownActors=%zu, knownActors[actorId]=%p, lastActorId=%d, typeName=%s", actorId,
                     known, current, lastActorId.load(), typeName.c_str());
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        CActor*& entry = m_knownActors[actorId];
        if (entry != nullptr)
        {
            // Whoever holds on to the old one may still use it, so it is neither destroyed nor freed.
            logInconsistency(Error, CREATE,
                             "actor id= %d(%d), typeName=%s(%s). Actor id should not repeat for client connection!",
                             entry->GetId(), actorId, entry->GetTypeName().c_str(), typeName.c_str());
        }
        entry = actor;
    }
    logInconsistency(Info, CREATE, "actor id=%d(%d), typeName=%s(%s), knownActors[actorId]=%p, ", actor->GetId(),
                     actorId, actor->GetTypeName().c_str(), typeName.c_str(), static_cast<void const*>(actor));
}

void CClientConnection::DestroyActor(CActor* actor, bool deleteObject)
{
    CCancellationGuard const guard;
    if (actor == m_ownActor)
    {
        return;
    }
    if (actor == nullptr)
    {
        logInconsistency(Error, DESTROY, "%s", "Shouldn't try to destroy nullptr actor");
        logFatal() << "Shouldn't try to destroy nullptr actor";
        std::abort();
    }
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (!m_claimed.insert(actor).second)
        {
            return;
        }
    }
    DestroyClaimed(actor, deleteObject);
}

void CClientConnection::DestroyClaimed(CActor* actor, bool deleteObject)
{
    int const actorId = actor->GetId();
    std::string const typeName = actor->GetTypeName();
    logDebug() << "CClientConnection::dtor actorId=" << actorId << " deleteObject=" << deleteObject;
    auto const type = FindActorType(typeName);
    logInconsistency(Error, DESTROY, "CClientConnection::dtor actor= %d, typeName=%s", actorId, typeName.c_str());
    logDebug() << "CClientConnection::dtor CleanCallbacks...";
    actor->CleanCallbacks();
    if (deleteObject)
    {
        logDebug() << "CClientConnection::dtor calling destructor...";
        // An object that throws half way can neither be used nor destroyed again. That ends the process, also where an
        // exception otherwise costs the call alone.
        [&]() noexcept { type->destroy(actor->GetObject()); }();

        // A destructor cannot be unwound, so none is cancelled; a kill that came meanwhile acts here.
        CCancellationWindow const window;
    }
    logDebug() << "CClientConnection::dtor deleting actor...";
    std::shared_ptr<CActor> last;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        last = std::move(actor->m_self);
    }
    last.reset();
    logDebug() << "CClientConnection::dtor erasing actor from knownActors...";
    std::size_t const remaining = Erase(actorId, actor);
    logDebug() << "CClientConnection::dtor of " << actorId << " done, " << remaining << " actors remaining";
    if (remaining == 1)
    {
        StopWorker();
    }
}

std::size_t CClientConnection::Erase(int actorId, CActor* actor)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_knownActors.erase(actorId);
    m_claimed.erase(actor);
    m_leaving.erase(actorId);
    return m_knownActors.size();
}

void CClientConnection::StopWorker()
{
    if (!m_thread.IsCurrentThread())
    {
        m_thread.StopAndJoin();
        return;
    }
    std::lock_guard<std::mutex> const lock(m_postMutex);
    m_thread.StopAndJoin();
}

void CClientConnection::DestroyActors(bool deleteObject)
{
    CCancellationGuard const guard;
    logDebug() << "CClientConnection::DestroyActors(" << deleteObject << ")";
    std::vector<CActor*> doomed;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        for (auto entry = m_knownActors.begin(); entry != m_knownActors.end();)
        {
            CActor* const actor = entry->second;
            if (actor == nullptr)
            {
                // Looked up, but never made: the kill came first.
                entry = m_knownActors.erase(entry);
                continue;
            }
            if (entry->first != protocol::OWN_ACTOR_ID && m_claimed.insert(actor).second)
            {
                doomed.push_back(actor);
            }
            ++entry;
        }
    }

    // Unlocked: each erases itself from the map under this mutex, and an application's destructor may send a
    // callback, which comes back here.
    for (CActor* const actor : doomed)
    {
        DestroyClaimed(actor, deleteObject);
    }
    logDebug() << "CClientConnection::DestroyActors done";
}

void CClientConnection::Shutdown()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_shutDown = true;
    }
    m_thread.StopAndJoin();
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_workerEnded = true;
    }
    DestroyActors(true);

    // A callback that failed just before may have started the worker again for a removal.
    m_thread.StopAndJoin();
}

bool CClientConnection::SendCallback(int actorId, std::string const& name, types::CValueList const& list)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcHost::SendCallback actorId = " << actorId << ", name = " << name
               << ", msg = " << types::toString(list);
    types::CValueList callback = list;
    callback[protocol::ACTOR_ID] = types::makeValue<int>(actorId);
    callback[protocol::METHOD_NAME] = types::makeValue<std::string>(name);
    bool const sent = m_host.SendCallback(callback, m_connectionId);
    if (!sent)
    {
        logError() << "CClientConnection::SendCallback client disappeared, unregistering actor";
        PostRemoval(actorId);
    }
    return sent;
}

void CClientConnection::PostRemoval(int actorId)
{
    if (actorId == protocol::OWN_ACTOR_ID)
    {
        return;
    }
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (m_shutDown || m_isClientGone || !m_leaving.insert(actorId).second)
        {
            return;
        }
    }
    // Not here: the actor's object may be the caller, and would be destroyed under its own feet.
    std::string const name = "remove[" + std::to_string(actorId) + "]";
    std::lock_guard<std::mutex> const lock(m_postMutex);
    m_thread.Post([this, actorId] { RemoveLostActor(actorId); }, name);

    // Watched as calls are: an object that hangs while it is destroyed would keep the host from ending.
    m_host.GetThreadWatchdog().Ping(
        &m_thread,
        [this] {
            LoseActors();
            m_killSender.Send();
        },
        name);
}

void CClientConnection::OnClientGone()
{
    CCancellationGuard const guard;
    m_isClientGone = true;
    std::string const name = "gone[" + std::to_string(m_connectionId) + "]";
    std::lock_guard<std::mutex> const lock(m_postMutex);
    m_thread.Post([this] { RemoveOrphans(); }, name);
    m_host.GetThreadWatchdog().Ping(
        &m_thread, [this] { LoseActors(); }, name);
}

void CClientConnection::RemoveOrphans()
{
    CCancellationGuard const guard;
    DestroyActors(true);
    if (m_thread.IsStarted())
    {
        StopWorker(); // there was no last actor to do so
    }
}

void CClientConnection::RemoveLostActor(int actorId)
{
    CCancellationGuard const guard;
    CActor* actor = nullptr;
    bool isLast = false;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const entry = m_knownActors.find(actorId);
        bool const isThere = entry != m_knownActors.end() && entry->second != nullptr;

        // Once the id has left, what is under it now is another actor, made since the removal was posted.
        if (m_leaving.erase(actorId) != 0 && isThere && m_claimed.insert(entry->second).second)
        {
            actor = entry->second;
        }
        isLast = m_knownActors.size() == 1;
    }
    if (actor != nullptr)
    {
        DestroyClaimed(actor, true);
    }
    else if (isLast)
    {
        StopWorker(); // which was started for nothing
    }
}

} // namespace nelo_rpc
