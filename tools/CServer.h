#pragma once

#include "CBus.h"
#include "Options.h"

#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <functional>
#include <string>

/// A server as this program sees it: one client, whose calls either give a result or say in a CFailure why not.
class CServer
{
public:
    /// Throws CFailure if nobody owns the name and the bus would start nobody for it.
    CServer(CBus& bus, std::string const& name, SOptions const& options);
    CServer(CServer const&) = delete;
    CServer& operator=(CServer const&) = delete;

    /// Makes an actor, hands its id to `work`, and destroys it, also if `work` throws CFailure.
    void WithActor(std::string const& typeName, std::function<void(int actorId)> const& work);

    /// Calls a function and returns its result, which is not empty.
    nelo_rpc::types::CValueList Call(std::string const& typeName, int actorId, std::string const& function,
                                     nelo_rpc::types::CValueList const& args);

    /// Asks for something that changes nothing.
    void Ping();

    /// How long the last call took.
    std::chrono::microseconds GetDuration() const { return m_duration; }

    /// Callbacks of an actor go to `handler` from now on, within Dispatch().
    using CallbackHandler = std::function<void(std::string const& name, nelo_rpc::types::CValueList const& payload)>;
    void SubscribeCallbacks(int actorId, CallbackHandler handler);

    /// Readable when Dispatch() has something to do.
    int GetFd() { return m_callbackFd; }
    void Dispatch() { m_port.DispatchCallbacks(); }

    /// Throws CFailure if the server that was there at the start is not there any more.
    void RequireThere();

private:
    int MakeActor(std::string const& typeName);
    void DestroyActor(std::string const& typeName, int actorId);
    [[noreturn]] void FailWithoutReply(std::string const& cause);
    [[noreturn]] void FailWithoutResult(std::string const& typeName, int actorId, std::string const& function);
    bool WasKilled();

    CBus& m_bus;
    std::string const m_name;
    std::chrono::milliseconds const m_timeout;
    std::string m_owner;
    nelo_rpc::CDbusPort m_port;
    nelo_rpc::CRpcClient m_client;
    int m_callbackFd;
    bool m_killed = false;

    /// What the server may know of the actors it made. One that is asked to destroy an actor it has lost could end.
    enum class EActors
    {
        There,
        Doubtful, ///< a call makes them anew if they are lost
        Lost
    };
    EActors m_actors = EActors::There;
    std::chrono::microseconds m_duration{0};
};

/// Throws CFailure for a name that no bus would take.
void requireBusName(std::string const& name);

/// Keeps the library's lines off the system log: what they say of a failed call becomes part of the failure.
void catchLog();
