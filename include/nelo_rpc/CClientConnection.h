#pragma once

#include <nelo_rpc/CActor.h>
#include <nelo_rpc/CCallbackSender.h>
#include <nelo_rpc/CLoopThread.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/HangReport.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace nelo_rpc
{

class CHostCore;
class CRpcHost;
struct SActorType;
struct SPeer;

/// What a host keeps for one peer: its actors and the worker thread that runs its calls one at a time.
///
/// The actor with id 0 is the connection itself; its functions "ctor" and "dtor" make and destroy the others.
/// Made and owned by the host. Since 0.1.
class NELO_RPC_API CClientConnection
{
public:
    /// Type name of actor 0 of every connection.
    static std::string const& TYPENAME;

    /// The last actor id that "ctor" of any connection of this process handed out.
    static std::atomic<int> lastActorId;

    CClientConnection(CRpcHost& host, int connectionId);
    CClientConnection(CClientConnection const&) = delete;
    CClientConnection& operator=(CClientConnection const&) = delete;

    /// Must be shut down before.
    ~CClientConnection();

    /// Queues a call for the worker thread, watched by the host's watchdog, and returns at once.
    /// Runs on the port's receiver thread.
    void OnFunctionCall(types::CValueList const& call, CRpcPort::ReplyFunction reply);

    /// Carries a call out and hands its result to `reply`. Runs on the worker thread.
    void OnFunctionCallSync(types::CValueList const& call, CRpcPort::ReplyFunction const& reply);

    /// Makes an actor of a registered type and returns its id; 0 for the connection's own type.
    /// An unknown type is fatal.
    int ctor(std::string typeName);

    /// Destroys an actor and its object. 0 is ignored; an unknown id is fatal.
    void dtor(int actorId);

    CActor* CreateActorWithId(int actorId, std::string const& typeName);

    /// Destroys an actor of this connection, with its application object or without. Null is fatal.
    /// One that another thread is already destroying is left to it.
    void DestroyActor(CActor* actor, bool deleteObject);

    /// Destroys every actor except actor 0.
    void DestroyActors(bool deleteObject);

    /// Lets the queued calls finish, stops the worker thread and destroys all actors with their objects.
    void Shutdown();

    /// Sends a callback of one of the actors to this connection's client; any thread.
    ///
    /// @return false when it could not be sent: the actor is then removed soon afterwards, with its object, on the
    ///         worker thread.
    bool SendCallback(int actorId, std::string const& name, types::CValueList const& list);

    /// The client has left the bus: destroys its actors with their objects on the worker thread, which then ends.
    /// Calls that are queued are not carried out any more. Does not wait. Runs on the port's receiver thread.
    /// Since 0.1.
    void OnClientGone();
    /// For the host: lets the workers keep alive what holds this object, so that one that is cut off may end after the
    /// host.
    void ShareWithWorkers(std::weak_ptr<void> keeper);

    /// For the host, after Shutdown() and the watchdog's end: answers what was never carried out, with an empty list.
    void Close();

    /// Whether workers were cut off and have not ended. Any thread.
    bool HasCutOffWorkers() const;

private:
    struct SCall;
    class CUnfinished;
    class CRunning;

    /// What the worker is doing, for a report.
    struct SRunning
    {
        std::string actorType;
        std::string function;
        int thread;
        std::chrono::steady_clock::time_point since;
    };

    void Ping(std::string const& name, std::function<void()> onKill);
    void ReportHang();
    void NameRunningType(std::string const& typeName);
    std::unique_lock<std::mutex> LockTable();
    void LoseActors();
    void ForgetClaimed();
    std::shared_ptr<CActor> FindOrRecreateActor(int actorId, std::string const& typeName);
    std::shared_ptr<CActor> Recreate(int actorId, std::string const& typeName,
                                     std::function<bool(CActor const& actor)> const& isWanted);
    std::shared_ptr<CActor> Create(int actorId, std::string const& typeName,
                                   std::function<bool(CActor const& actor)> const& isWanted = {});
    std::shared_ptr<SActorType const> LookUpType(std::string const& typeName);
    std::shared_ptr<SActorType const> FindActorType(std::string const& typeName);
    std::shared_ptr<CActor> Hold(CActor& actor) const;
    void Enter(std::shared_ptr<CActor> const& actor, int actorId, std::string const& typeName);
    void DestroyClaimed(std::shared_ptr<CActor> actor, bool deleteObject);
    void LetGoOf(CActor& actor);
    std::size_t Erase(int actorId);
    void StopWorker();
    void PostRemoval(int actorId);
    void RemoveLostActor(int actorId);
    void RemoveOrphans();
    int TakeActorId();
    bool IsRefusedAsTooMany(CRpcPort::ReplyFunction const& reply);

    struct SRequest;

    // What a host that was told to looks at before a call is carried out. An objection is a list that refuses the call,
    // and empty if there is none.
    bool IsChecked() const;
    void CarryOutChecked(types::CValueList const& call, CRpcPort::ReplyFunction const& reply);
    void CarryOutUnlessRefused(SRequest const& request, CRpcPort::ReplyFunction const& reply);
    std::shared_ptr<CActor> FindActor(int actorId);
    std::shared_ptr<CActor> FindOrRecreateFor(SRequest const& request, types::CValueList& objection);
    types::CValueList ObjectionTo(SRequest const& request);
    types::CValueList ObjectionToTarget(SRequest const& request, CActor const* actor);
    types::CValueList ObjectionToLostActor(SRequest const& request);
    types::CValueList ObjectionToOwnFunction(SRequest const& request);
    types::CValueList ObjectionToType(std::string const& typeName);
    types::CValueList ObjectionToNumber(SRequest const& request, CActor const* actor);
    types::CValueList ObjectionToPeer(SRequest const& request, CActor const* actor);
    std::string FindTypeOfTarget(SRequest const& request, CActor const* actor);
    std::shared_ptr<SPeer const> FindPeer();

    CCallbackSender<> m_killSender;
    CRpcHost& m_host;
    int m_connectionId;
    CLoopThread m_thread;
    std::map<int, CActor*> m_knownActors;
    std::mutex m_mutex;
    CActor* m_ownActor;

    // Guarded by m_mutex, as m_knownActors is.
    std::set<CActor*> m_claimed; // being destroyed by the thread that entered them here
    std::set<int> m_leaving;     // removal is posted
    bool m_shutDown;
    bool m_workerEnded; // for good

    // Held while a call and its ping are posted and while the worker stops itself: a ping that came after the stop
    // would start a thread for nothing.
    std::mutex m_postMutex;

    std::shared_ptr<std::atomic<int>> const m_unanswered; // calls, which may outlive the connection; null: not counted
    bool m_isRefusing;                                    // only for the receiver thread
    std::atomic<bool> m_isClientGone{false};

    std::shared_ptr<CHostCore> const m_core;       // for a worker that may be cut off: beyond the host's end
    std::shared_ptr<CCutOffCount> const m_cutOffs; // of this connection

    // Guarded by m_mutex too.
    std::shared_ptr<SPeer const> m_peer;  // once it was asked for
    std::shared_ptr<CActor> m_unfinished; // being set up
    std::optional<SRunning> m_running;    // only if hangs are reported

    std::atomic<bool> m_isPeerAskedFor{false}; // for reports, which can do without an answer
};

} // namespace nelo_rpc
