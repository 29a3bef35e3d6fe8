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
#include <string>
#include <utility>

namespace nelo_rpc
{

class CHostCore;

/// What an application may choose for a host. Since 0.1.
struct NELO_RPC_API SHostOptions
{
    /// How long a worker thread may leave a call unanswered, in milliseconds.
    int hangLimitMs = 20000;

    /// How often that is checked, in milliseconds; a hung worker is killed at the first check at which the checks
    /// since its call add up to the limit.
    int hangCheckMs = 5000;

    /// How a hung worker is killed. AtCancellationPoint: where POSIX allows it, and where it calls the library. A
    /// worker that gets to no such point within a second is cut off: the client sees what it sees after any kill, the
    /// worker is left to itself, and a new one takes its place. What it uses of the library lives until it has ended,
    /// which it does as soon as its function returns, or calls the library; its result and its callbacks are dropped.
    /// An error line says so, and an info line when it has ended.
    EKill kill = EKill::Anywhere;

    /// With AtCancellationPoint: while so many workers of the host are cut off and have not ended, calls of each
    /// client that one of them is of are refused at once, with an error line. 0: no limit.
    int maxCutOff = 16;

    /// Whether error lines tell, before each kill, whose worker is killed, in which function, for how long it has
    /// been there, and its stack. To read the stack it is interrupted by the signal SIGURG. Each client's credentials
    /// are asked for before its first call.
    bool reportHangs = false;

    /// Gets the same, and turns `reportHangs` on. Runs on the watchdog's thread, right before the kill, which waits for
    /// it. What it throws ends the process.
    std::function<void(SHangReport const& report)> onHang;

    /// What a new application should use: AtCancellationPoint, and reports.
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

    bool IsRefused(CClientConnection const& connection) const;

    CRpcPort& m_port;
    std::shared_ptr<CHostCore> const m_core;
    std::map<int, std::shared_ptr<CClientConnection>> m_connections;
};

} // namespace nelo_rpc
