#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace nelo_rpc::test
{

/// A server without application code, for tests of clients: it answers each function as the test says, or does not,
/// keeps what it was called with, and sends callbacks when it is told to.
///
/// It makes and destroys actors of every type that a client asks for. A function for which the test has said nothing
/// is answered with an empty list, as a server does for one that the actor does not have.
///
/// Answers are given on the port's receiver thread, one call at a time for all clients, with nothing locked. All
/// functions may be called from any thread. The port must be asynchronous, a CLocalPort or a CDbusPort, and outlive
/// the object, which must be there before the first call. Since 0.1.
class CScriptedServer
{
public:
    struct SCall
    {
        std::string typeName;
        int actorId;
        std::string function;
        types::CValueList args; ///< at 0, 1, ...; without the reserved entries
        int connectionId;       ///< of the client
    };

    explicit CScriptedServer(CRpcPort& port);
    CScriptedServer(CScriptedServer const&) = delete;
    CScriptedServer& operator=(CScriptedServer const&) = delete;

    /// Waits for an answer that is being given, unless it is destroyed by that.
    ~CScriptedServer();

    // What the test says beforehand. What is said later about the same function counts from then on.

    /// Answers calls of a function with what a lambda or function gives for their arguments, as the function of a real
    /// actor does. It may block, send callbacks and say something else about functions.
    template <class Callable>
    void Answer(std::string const& function, Callable&& answer)
    {
        SetScript(function, {EWay::Answer, makeValueListFunction(std::forward<Callable>(answer))});
    }

    /// Answers with this list each time; an empty one is what a call gives that was killed.
    void AnswerWithList(std::string const& function, types::CValueList const& result);

    /// Never answers: the client's call ends with its time-out.
    void StaySilent(std::string const& function);

    /// Answers with an error: the client's call gives no result at once.
    ///
    /// @param error  one of the names in nelo_rpc::refusal, or any that the bus would take.
    void Refuse(std::string const& function, std::string const& error, std::string const& cause);

    // What the test does as the server.

    /// Sends a callback of an actor, with the payload at 0, 1, ..., to the client that made it.
    ///
    /// @return whether it was sent; false for an actor that there is not.
    template <class... Args>
    bool Send(int actorId, std::string const& callback, Args const&... payload)
    {
        types::CValueList list;
        int index = 0;
        static_cast<void>(index);
        ((list[index++] = types::packValue<std::decay_t<Args>>(payload)), ...);
        return SendList(actorId, callback, std::move(list));
    }

    /// Loses all actors, as a server does that has killed a hung call: each client gets "OnKill", and the next call of
    /// each actor makes it anew, with "OnRecreate".
    void LoseActors();

    // What came.

    /// The calls of a function in the order in which they came. "ctor" and "dtor" are kept as well.
    std::vector<SCall> GetCalls(std::string const& function) const;

    /// Waits until a function was called that many times since the beginning. @return false when the limit passed.
    bool WaitForCalls(std::string const& function, std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

    /// The ids of the actors that there are, in the order in which they were made.
    std::vector<int> GetActorIds() const;

private:
    enum class EWay
    {
        Answer,
        StaySilent
    };

    struct SScript
    {
        EWay way;
        ValueListFunction answer;
    };

    void SetScript(std::string const& function, SScript script);
    void OnCall(types::CValueList const& list, int connectionId, CRpcPort::ReplyFunction const& reply);
    SScript FindScript(std::string const& function) const;
    types::CValueList MakeActor(int connectionId);
    types::CValueList DestroyActor(types::CValueList const& args);
    void RemakeIfLost(SCall const& call);
    bool SendList(int actorId, std::string const& callback, types::CValueList list);
    bool SendTo(int connectionId, int actorId, std::string const& callback, types::CValueList list);

    CRpcPort& m_port;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_called;
    std::map<std::string, SScript> m_scripts;
    std::vector<SCall> m_calls;
    std::map<int, int> m_actors; // id -> connection id of its client
    int m_lastActorId;
};

} // namespace nelo_rpc::test
