#pragma once

#include <nelo_rpc/CActor.h>
#include <nelo_rpc/CClientConnection.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CThreadWatchdog.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Choices.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/HangReport.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace nelo_rpc
{

class CHostCore;
/// A client as the bus vouches for it: nothing of this is what the client says. Since 0.1.
struct SPeer : SPeerCredentials
{
    std::string name;      ///< the unique name on the bus
    int connectionId = -1; ///< the port's id for it
};

/// What an application may choose for a host. Since 0.1.
struct NELO_RPC_API SHostOptions
{
    /// Untrusted: no call ends the process, whatever a peer puts into it. Each is looked at before anything is done
    /// about it; one that makes no sense is refused with an error reply and an error line. So is one for a function
    /// that the actor does not have, and one that a std::exception of the application ends.
    ///
    /// What only the application can look at remains its own: see CActor::AddFunction() and types::SValueTraits. A
    /// message that is none of the protocol is the port's affair: see SPortOptions::peers.
    EPeers peers = EPeers::Trusted;

    /// How a hung worker is killed. AtCancellationPoint: where POSIX allows it, and where it calls the library. A
    /// worker that gets to no such point within a second is cut off: the client sees what it sees after any kill, the
    /// worker is left to itself, and a new one takes its place. What it uses of the library lives until it has ended,
    /// which it does as soon as its function returns, or calls the library; its result and its callbacks are dropped.
    /// An error line says so, and an info line when it has ended.
    EKill kill = EKill::Anywhere;

    /// Destroy: when a client leaves the bus, its actors are destroyed with their objects, and its worker thread ends.
    /// A call that is being carried out is done before, or killed if it hangs; those that wait behind it are not
    /// carried out any more. The host uses the port's WatchPeers() for this, and an error line says so if the port
    /// cannot tell who leaves. When the bus itself is lost, nobody leaves it.
    EOrphans orphans = EOrphans::Keep;

    /// How long a worker thread may leave a call unanswered, in milliseconds.
    int hangLimitMs = 20000;

    /// How often that is checked, in milliseconds; a hung worker is killed at the first check at which the checks
    /// since its call add up to the limit.
    int hangCheckMs = 5000;

    /// How many calls of one client may be without an answer, the one that is being carried out included. A further
    /// one is refused at once with an error reply, and the first of several in a row with an error line. 0: no limit.
    int maxQueuedCalls = 0;

    /// How many actors one client may have; making a further one, or a lost one again, is refused with an error reply
    /// and an error line. 0: no limit.
    int maxActors = 0;

    /// Says of each call whether this client may make it; empty: every client may make every call. One that it may not
    /// make is refused with an error reply and an error line, and so is every call of a client of whom the bus does
    /// not say who it is (it has left).
    ///
    /// @param typeName      the type of the actor that is called, whatever the call says. Of "ctor" and "dtor" it is the
    ///                      type of the actor that is made or destroyed. The connection itself is of the type
    ///                      CClientConnection::TYPENAME.
    /// @param functionName  as the client sent it: the actor need not have such a function. A call that makes a lost
    ///                      actor again is asked about twice, for "ctor" and for the function.
    ///
    /// Runs on the worker thread of the client, for several clients at once, with no lock of the library held; it is
    /// watched, and killed, as the call is. Who the client is was asked of the bus on that thread too, once. An
    /// exception is met as one of the function would be.
    std::function<bool(SPeer const& peer, std::string const& typeName, std::string const& functionName)> authorize;

    /// With AtCancellationPoint: while so many workers of the host are cut off and have not ended, calls of each
    /// client that one of them is of are refused at once, with an error line. 0: no limit.
    int maxCutOff = 16;

    /// Whether error lines tell, before each kill, whose worker is killed, in which function, for how long it has
    /// been there, and its stack. To read the stack it is interrupted by the signal SIGURG. Each client's credentials
    /// are asked for before its first call.
    bool reportHangs = false;

    /// Gets the same, and turns `reportHangs` on. Runs right before the kill, which waits for it, on the watchdog's thread,
    /// with AtCancellationPoint on a thread of the kill; never twice at the same time. What it throws ends the process.
    std::function<void(SHangReport const& report)> onHang;

    /// What a new application should use: untrusted peers, kills at cancellation points, reports of them, orphans
    /// destroyed, at most 128 calls of a client waiting (as many as the bus lets it wait for) and 1000 actors for it.
    static SHostOptions Recommended();
};

/// How a host makes, equips and destroys the application objects of one actor type.
///
/// All three run on the worker thread of the connection concerned; `destroy` also on the thread that destroys the
/// host. Types are used by several connections at once. Since 0.1.
struct NELO_RPC_API SActorType
{
    std::function<void*()> create;
    std::function<void(void* object)> destroy;
    std::function<void(CActor& actor)> setup; ///< adds functions and callbacks; CActor::GetObject() is the object
};

/// The server's root object: receives every call from a port and lets clients make actors of the registered types.
///
/// The port must be asynchronous and outlive the host. Since 0.1.
class NELO_RPC_API CRpcHost
{
public:
    /// Starts to serve: installs the port's function-call listener and starts the watchdog.
    ///
    /// @param registerTypes  registers actor types before the first call can arrive. Types that are registered
    ///                       later are unknown to a client that calls at once, which is fatal.
    explicit CRpcHost(CRpcPort& port, SHostOptions const& options = {},
                      std::function<void(CRpcHost& host)> const& registerTypes = {});
    CRpcHost(CRpcHost const&) = delete;
    CRpcHost& operator=(CRpcHost const&) = delete;

    /// Lets queued calls finish, destroys all actors with their objects and stops the watchdog. A call that hangs
    /// delays it until the watchdog has killed the call.
    virtual ~CRpcHost();

    /// Makes a type known under a name, replacing an earlier one. Any thread.
    void RegisterActorType(std::string const& typeName, SActorType type);

    /// The same for objects of class T.
    ///
    /// @param setup  adds the functions and callbacks of an object to its actor.
    /// @param make   makes an object; without it, T's default constructor does.
    template <class T>
    void RegisterActorType(std::string const& typeName, std::function<void(CActor& actor, T& object)> setup,
                           std::function<std::unique_ptr<T>()> make = {})
    {
        SActorType type;
        type.create = MakeCreate<T>(std::move(make));
        type.destroy = [](void* object) { delete static_cast<T*>(object); };
        type.setup = [setup = std::move(setup)](CActor& actor) { setup(actor, *static_cast<T*>(actor.GetObject())); };
        RegisterActorType(typeName, std::move(type));
    }

    /// The registered type, or null. Any thread.
    std::shared_ptr<SActorType const> FindActorType(std::string const& typeName);

    /// Hands a call to the connection of its peer. Runs on the port's receiver thread and returns at once.
    void OnFunctionCall(types::CValueList const& call, int connectionId, CRpcPort::ReplyFunction reply);

    /// The connection of a peer, made when it is first asked for. Only for the port's receiver thread.
    CClientConnection& GetOrCreateClientConnection(int connectionId);

    /// Sends a finished callback list to a peer. Any thread. False when it could not be sent.
    bool SendCallback(types::CValueList const& list, int connectionId);

    CThreadWatchdog& GetThreadWatchdog();

    SHostOptions const& GetOptions() const;

    /// Who a client is, or nothing if the bus does not say. Blocks for the bus when it is first asked about a client.
    /// Any thread.
    std::optional<SPeer> FindPeer(int connectionId);

    /// Answers a call with a refusal (see refusal::make) and an error line that names the peer and the cause.
    void Refuse(int connectionId, types::CValueList const& refusal, CRpcPort::ReplyFunction const& reply);

private:
    template <class T>
    static std::function<void*()> MakeCreate(std::function<std::unique_ptr<T>()> make)
    {
        if (make)
        {
            return [make = std::move(make)]() -> void* { return make().release(); };
        }
        if constexpr (std::is_default_constructible_v<T>)
        {
            return []() -> void* { return new T(); };
        }
        else
        {
            FailOnMissingFactory();
        }
    }

    [[noreturn]] static void FailOnMissingFactory();

    friend class CClientConnection; // which shares the core

    void WatchClients();
    void OnClientGone(int connectionId);
    bool IsRefused(CClientConnection const& connection) const;

    CRpcPort& m_port;
    std::recursive_mutex m_mutex; // guards the registry
    std::map<int, CClientConnection> m_connections;
    std::map<std::string, std::shared_ptr<SActorType const>> m_actorTypes;

    std::shared_ptr<CHostCore> const m_core; // what connections use beyond the host's end

    // Shared with the workers of each connection. What has been put in when the host ends, its worker takes along.
    using ConnectionNode = std::map<int, CClientConnection>::node_type;
    std::map<int, std::shared_ptr<ConnectionNode>> m_leftBehind;
};

} // namespace nelo_rpc
