#include <nelo_rpc/CClientConnection.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include "CHostCore.h"
#include "SystemLog.h"
#include "ThreadInterrupt.h"

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

/// What a report calls the removal of an actor whose client has gone.
constexpr char const* REMOVE = "remove";

/// How long a hung worker may take to show its stack.
constexpr std::chrono::milliseconds STACK_LIMIT{500};

} // namespace

// Never destroyed, because threads that are alive at exit still create actors.
std::string const& CClientConnection::TYPENAME = *new std::string(protocol::CONNECTION_TYPE);

std::atomic<int> CClientConnection::lastActorId{0};

/// A received call with its reply, shared by the work item and the kill handler: whoever comes first answers.
struct CClientConnection::SCall
{
    SCall(types::CValueList const& l, CRpcPort::ReplyFunction r, std::shared_ptr<std::atomic<bool> const> e,
          std::shared_ptr<std::atomic<int>> u)
        : list(l), reply(std::move(r)), hostEnded(std::move(e)), unanswered(std::move(u))
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
        bool const mayUsePort = !*hostEnded && !CCancellationRequest::IsOwnCutOff();
        if (!mayUsePort || answered.exchange(true))
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
    std::shared_ptr<std::atomic<bool> const> const hostEnded;
    std::shared_ptr<std::atomic<int>> const unanswered;
    std::atomic<bool> answered{false};
};

/// An actor on its way to the table. What does not get there, because the setup is killed or throws, leaves nothing
/// behind that still sends through the actor.
class CClientConnection::CUnfinished
{
public:
    CUnfinished(CClientConnection& connection, std::shared_ptr<CActor> const& actor, SActorType const& type)
        : m_connection(connection), m_actor(actor), m_type(type)
    {
        auto const lock = connection.LockTable();
        connection.m_unfinished = actor;
    }

    CUnfinished(CUnfinished const&) = delete;
    CUnfinished& operator=(CUnfinished const&) = delete;

    ~CUnfinished()
    {
        bool isEntered = false;
        {
            std::lock_guard<std::mutex> const lock(m_connection.m_mutex);
            isEntered = m_actor->m_self != nullptr;
            if (m_connection.m_unfinished == m_actor)
            {
                m_connection.m_unfinished.reset();
            }
        }
        if (isEntered)
        {
            return;
        }
        m_actor->CleanCallbacks();
        if (std::uncaught_exceptions() > m_exceptions) // a kill unwinds without one: nobody knows the object's state
        {
            m_type.destroy(m_actor->GetObject());
        }
    }

private:
    CClientConnection& m_connection;
    std::shared_ptr<CActor> const m_actor;
    SActorType const& m_type;
    int const m_exceptions = std::uncaught_exceptions();
};

/// What the calling worker is doing from now on, as a report tells it.
class CClientConnection::CRunning
{
public:
    CRunning(CClientConnection& connection, std::string const& actorType, std::string const& function)
        : m_connection(connection), m_thread(interrupt::OwnThread())
    {
        {
            auto const lock = connection.LockTable();
            connection.m_running = SRunning{actorType, function, m_thread, std::chrono::steady_clock::now()};
        }
        if (!connection.m_isPeerAskedFor.exchange(true))
        {
            static_cast<void>(connection.FindPeer()); // the report has no time for it
        }
    }

    CRunning(CRunning const&) = delete;
    CRunning& operator=(CRunning const&) = delete;

    ~CRunning()
    {
        std::lock_guard<std::mutex> const lock(m_connection.m_mutex);
        auto& running = m_connection.m_running;
        if (running && running->thread == m_thread) // and not what the next worker does
        {
            running.reset();
        }
    }

private:
    CClientConnection& m_connection;
    int const m_thread;
};

CClientConnection::CClientConnection(CRpcHost& host, int connectionId)
    : m_host(host),
      m_connectionId(connectionId),
      m_ownActor(nullptr),
      m_shutDown(false),
      m_workerEnded(false),
      m_unanswered(host.GetOptions().maxQueuedCalls > 0 ? std::make_shared<std::atomic<int>>(0) : nullptr),
      m_isRefusing(false),
      m_core(host.m_core),
      m_cutOffs(std::make_shared<CCutOffCount>(m_core->GetCutOffs()))
{
    ShareWithWorkers({});
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
    auto const shared = std::make_shared<SCall>(call, std::move(reply), m_core->GetEnded(), m_unanswered);

    std::lock_guard<std::mutex> const lock(m_postMutex);
    CLoopThread::CWakeHold const hold(m_thread); // for the pong behind it
    m_thread.Post(
        [this, shared] {
            if (!m_isClientGone) // else an actor that is made now would stay for ever
            {
                OnFunctionCallSync(shared->list, [&](types::CValueList const& result) { shared->Answer(result); });
            }
        },
        name);
    Ping(name, [this, shared] {
        LoseActors();
        shared->Answer({});
        m_killSender.Send();
    });
}

void CClientConnection::Ping(std::string const& name, std::function<void()> onKill)
{
    std::function<void()> beforeKill;
    if (m_core->IsReportingHangs())
    {
        beforeKill = [this] { ReportHang(); };
    }
    m_core->GetWatchdog().Ping(&m_thread, std::move(onKill), name, std::move(beforeKill));
}

void CClientConnection::ReportHang()
{
    SHangReport report;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (!m_running)
        {
            return; // killed already, with an earlier ping of its
        }
        report.peer = m_peer != nullptr ? std::make_optional<SPeerCredentials>(*m_peer) : std::nullopt;
        report.connectionId = m_connectionId;
        report.actorType = m_running->actorType;
        report.function = m_running->function;
        report.threadId = m_running->thread;
        auto const running = std::chrono::steady_clock::now() - m_running->since;
        report.runningMs = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(running).count());
    }
    report.peerName = m_core->GetPeerName(m_connectionId);
    report.stack = interrupt::StackOf(report.threadId, STACK_LIMIT);
    m_core->Report(report);
}

void CClientConnection::NameRunningType(std::string const& typeName)
{
    if (m_core->IsReportingHangs())
    {
        auto const lock = LockTable();
        if (m_running && m_running->thread == interrupt::OwnThread())
        {
            m_running->actorType = typeName;
        }
    }
}

std::unique_lock<std::mutex> CClientConnection::LockTable()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_thread.IsCurrentThread())
    {
        // What is in the table is not its any more. Under the lock, so that the handler of the kill, which takes it
        // too, meets no change that is half made.
        CCancellationRequest::EndIfCutOff();
    }
    return lock;
}

void CClientConnection::ShareWithWorkers(std::weak_ptr<void> keeper)
{
    SWorkerOptions options;
    options.kill = m_core->GetOptions().kill;
    options.owner = std::move(keeper);
    options.cutOffs = m_cutOffs;
    m_thread.SetWorkerOptions(std::move(options));
}

void CClientConnection::Close()
{
    m_thread.Close();
}

bool CClientConnection::HasCutOffWorkers() const
{
    return m_cutOffs->Get() > 0;
}

void CClientConnection::LoseActors()
{
    std::shared_ptr<CActor> unfinished;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_running.reset();
        if (m_workerEnded)
        {
            return; // what is left belongs to the thread that shuts the connection down
        }
        unfinished = std::move(m_unfinished);
    }
    if (unfinished != nullptr)
    {
        unfinished->Abandon();
    }
    ForgetClaimed();
    DestroyActors(false);
}

void CClientConnection::ForgetClaimed()
{
    // The killed worker was in the middle of destroying these, and their objects may be half gone, so these are left
    // alone; a call for one of them finds it lost.
    std::vector<std::shared_ptr<CActor>> forgotten; // a worker that was cut off holds its own until it has ended
    std::unique_lock<std::mutex> lock(m_mutex);
    for (auto entry = m_knownActors.begin(); entry != m_knownActors.end();)
    {
        if (m_claimed.count(entry->second) == 0)
        {
            ++entry;
            continue;
        }
        m_leaving.erase(entry->first);
        forgotten.push_back(std::move(entry->second->m_self));
        entry = m_knownActors.erase(entry);
    }
    m_claimed.clear();
    lock.unlock();
    for (auto const& actor : forgotten)
    {
        actor->CleanCallbacks();
    }
}

void CClientConnection::OnFunctionCallSync(types::CValueList const& call, CRpcPort::ReplyFunction const& reply)
{
    CCancellationGuard const guard;
    int const actorId = types::unpackAt<int>(call, protocol::ACTOR_ID);
    std::string const typeName = types::unpackAt<std::string>(call, protocol::TYPE_NAME);
    std::string const methodName = types::unpackAt<std::string>(call, protocol::METHOD_NAME);
    logDebug() << "CClientConnection::OnFunctionCallSync with function=" << typeName << ":" << methodName;
    std::optional<CRunning> running;
    if (m_core->IsReportingHangs())
    {
        running.emplace(*this, typeName, methodName);
    }
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
        auto const lock = LockTable();
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
        auto const lock = LockTable();
        actor = m_knownActors[actorId];
    }
    DestroyActor(actor, true);
}

std::shared_ptr<SActorType const> CClientConnection::LookUpType(std::string const& typeName)
{
    std::shared_ptr<SActorType const> type;
    if (!m_core->WhileHostLives([&] { type = m_host.FindActorType(typeName); }))
    {
        CCancellationRequest::EndIfCutOff();
    }
    return type;
}

std::shared_ptr<SActorType const> CClientConnection::FindActorType(std::string const& typeName)
{
    auto type = LookUpType(typeName);
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
    NameRunningType(typeName);

    void* object = nullptr;
    {
        CCancellationWindow const window;
        object = type->create();
    }
    auto actor = std::make_shared<CActor>(*this, actorId, typeName, object);
    actor->m_weakSelf = actor;
    CUnfinished const unfinished(*this, actor, *type);
    {
        CCancellationWindow const window;
        type->setup(*actor);
    }
    if (isWanted && !isWanted(*actor))
    {
        DestroyClaimed(std::move(actor), true);
        return nullptr;
    }
    Enter(actor, actorId, typeName);
    logDebug() << "CClientConnection::ctor actor=" << actor.get() << " actorId=" << actorId << " done";
    return actor;
}

void CClientConnection::Enter(std::shared_ptr<CActor> const& actor, int actorId, std::string const& typeName)
{
    std::size_t known = 0;
    void const* current = nullptr;
    {
        auto const lock = LockTable();
        known = m_knownActors.size();
        current = m_knownActors[actorId];
    }
    logInconsistency(Error, CREATE,
                     "actor id=%d, knownActors=%zu, knownActors[actorId]=%p, lastActorId=%d, typeName=%s", actorId,
                     known, current, lastActorId.load(), typeName.c_str());
    std::optional<std::pair<int, std::string>> replaced; // id and type: the actor may be gone when they are written
    {
        auto const lock = LockTable();
        CActor*& entry = m_knownActors[actorId];
        if (entry != nullptr)
        {
            // Whoever holds on to the old one may still use it, so it is neither destroyed nor freed.
            replaced.emplace(entry->GetId(), entry->GetTypeName());
        }
        entry = actor.get();
        actor->m_self = actor;
    }
    if (replaced)
    {
        logInconsistency(Error, CREATE,
                         "actor id= %d(%d), typeName=%s(%s). Actor id should not repeat for client connection!",
                         replaced->first, actorId, replaced->second.c_str(), typeName.c_str());
    }
    logInconsistency(Info, CREATE, "actor id=%d(%d), typeName=%s(%s), knownActors[actorId]=%p, ", actor->GetId(),
                     actorId, actor->GetTypeName().c_str(), typeName.c_str(), static_cast<void const*>(actor.get()));
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
    std::shared_ptr<CActor> claimed;
    {
        auto const lock = LockTable();
        if (!m_claimed.insert(actor).second)
        {
            return;
        }
        claimed = Hold(*actor);
    }
    DestroyClaimed(std::move(claimed), deleteObject);
}

void CClientConnection::DestroyClaimed(std::shared_ptr<CActor> actor, bool deleteObject)
{
    int const actorId = actor->GetId();
    std::string const typeName = actor->GetTypeName();
    logDebug() << "CClientConnection::dtor actorId=" << actorId << " deleteObject=" << deleteObject;
    auto const type = FindActorType(typeName);
    NameRunningType(typeName);
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
    LetGoOf(*actor);
    actor.reset();
    logDebug() << "CClientConnection::dtor erasing actor from knownActors...";
    std::size_t const remaining = Erase(actorId);
    logDebug() << "CClientConnection::dtor of " << actorId << " done, " << remaining << " actors remaining";
    if (remaining == 1)
    {
        StopWorker();
    }
}

void CClientConnection::LetGoOf(CActor& actor)
{
    // Out of reach before it is deleted, which may take for ever: the application's functions go with it. The handler of
    // a kill must not meet an actor that is half gone, or gone.
    auto const lock = LockTable();
    auto const entry = m_knownActors.find(actor.GetId());
    if (entry != m_knownActors.end() && entry->second == &actor)
    {
        entry->second = nullptr;
    }
    m_claimed.erase(&actor);
    m_leaving.erase(actor.GetId());
    actor.m_self.reset(); // which the caller holds too
}

std::size_t CClientConnection::Erase(int actorId)
{
    auto const lock = LockTable();
    m_knownActors.erase(actorId);
    m_leaving.erase(actorId);
    return m_knownActors.size();
}

void CClientConnection::StopWorker()
{
    m_thread.StopAndJoin(m_postMutex);
}

void CClientConnection::DestroyActors(bool deleteObject)
{
    CCancellationGuard const guard;
    logDebug() << "CClientConnection::DestroyActors(" << deleteObject << ")";
    std::vector<std::shared_ptr<CActor>> doomed;
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
                doomed.push_back(Hold(*actor));
            }
            ++entry;
        }
    }

    // Unlocked: each erases itself from the map under this mutex, and an application's destructor may send a
    // callback, which comes back here.
    for (auto& actor : doomed)
    {
        DestroyClaimed(std::move(actor), deleteObject);
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
    if (CCancellationRequest::IsOwnCutOff())
    {
        logError() << "CClientConnection::SendCallback dropped, the sending thread was cut off";
        return false;
    }
    types::CValueList callback = list;
    callback[protocol::ACTOR_ID] = types::makeValue<int>(actorId);
    callback[protocol::METHOD_NAME] = types::makeValue<std::string>(name);
    auto const core = m_core; // beyond a host that ends while the port does not come back
    bool const sent = core->SendCallback(callback, m_connectionId);
    if (!sent && !CCancellationRequest::IsOwnCutOff())
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
        bool const isLate = m_shutDown || m_isClientGone || CCancellationRequest::IsOwnCutOff();
        if (isLate || !m_leaving.insert(actorId).second)
        {
            return;
        }
    }
    // Not here: the actor's object may be the caller, and would be destroyed under its own feet.
    std::string const name = std::string(REMOVE) + "[" + std::to_string(actorId) + "]";
    std::unique_lock<std::mutex> lock(m_postMutex, std::defer_lock);
    if (!m_thread.IsCurrentThread()) // the worker does not stop itself while it is here, and must not keep the lock
    {
        lock.lock();
    }
    m_thread.Post([this, actorId] { RemoveLostActor(actorId); }, name);

    // Watched as calls are: an object that hangs while it is destroyed would keep the host from ending.
    Ping(name, [this] {
        LoseActors();
        m_killSender.Send();
    });
}

void CClientConnection::OnClientGone()
{
    CCancellationGuard const guard;
    m_isClientGone = true;
    std::string const name = "gone[" + std::to_string(m_connectionId) + "]";
    std::lock_guard<std::mutex> const lock(m_postMutex);
    m_thread.Post([this] { RemoveOrphans(); }, name);
    Ping(name, [this] { LoseActors(); });
}

void CClientConnection::RemoveOrphans()
{
    CCancellationGuard const guard;
    std::optional<CRunning> running;
    if (m_core->IsReportingHangs())
    {
        running.emplace(*this, "", REMOVE);
    }
    DestroyActors(true);
    if (m_thread.IsStarted())
    {
        StopWorker(); // there was no last actor to do so
    }
}

void CClientConnection::RemoveLostActor(int actorId)
{
    CCancellationGuard const guard;
    std::optional<CRunning> running;
    if (m_core->IsReportingHangs())
    {
        running.emplace(*this, "", REMOVE);
    }
    std::shared_ptr<CActor> actor;
    bool isLast = false;
    {
        auto const lock = LockTable();
        auto const entry = m_knownActors.find(actorId);
        bool const isThere = entry != m_knownActors.end() && entry->second != nullptr;

        // Once the id has left, what is under it now is another actor, made since the removal was posted.
        if (m_leaving.erase(actorId) != 0 && isThere && m_claimed.insert(entry->second).second)
        {
            actor = Hold(*entry->second);
        }
        isLast = m_knownActors.size() == 1;
    }
    if (actor != nullptr)
    {
        DestroyClaimed(std::move(actor), true);
    }
    else if (isLast)
    {
        StopWorker(); // which was started for nothing
    }
}

} // namespace nelo_rpc
