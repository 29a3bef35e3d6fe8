#include "CServer.h"

#include "Failure.h"
#include "Values.h"

#include <poll.h>

#include <iostream>
#include <mutex>
#include <utility>

using namespace nelo_rpc;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

constexpr milliseconds DEFAULT_TIMEOUT(25000); // the bus library's own

/// How long the news of a kill may come behind the empty answer that it causes.
constexpr milliseconds KILL_NEWS(300);

constexpr char const* CAUSE = "Dbus error: ";

/// What the library says behind such an error, if a rule is the cause: it helps more than the bus's own words.
constexpr char const* MISSING_RULE = "the policy of the bus lacks ";

/// What the library last said about a call that failed.
class CCause
{
public:
    void Note(log::ELevel level, std::string const& line)
    {
        if (level == log::ELevel::Fatal)
        {
            std::cerr << (line + "\n"); // the process is about to be stopped
        }
        std::size_t const cause = line.find(CAUSE);
        std::size_t const rule = line.find(MISSING_RULE);
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (cause != std::string::npos)
        {
            m_text = line.substr(cause + std::string(CAUSE).size());
        }
        else if (rule != std::string::npos)
        {
            m_text = line.substr(rule);
        }
    }

    std::string Take()
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return std::exchange(m_text, "");
    }

private:
    std::mutex m_mutex;
    std::string m_text;
};

CCause& lastCause()
{
    static CCause& cause = *new CCause; // lines may come until the very end
    return cause;
}

std::string secondsOf(milliseconds time)
{
    std::string text = std::to_string(static_cast<double>(time.count()) / 1000.0);
    text.erase(text.find_last_not_of('0') + 1);
    return text.back() == '.' ? text.substr(0, text.size() - 1) : text;
}

std::string ownerOrFail(CBus& bus, std::string const& name)
{
    std::string const owner = bus.GetOwner(name);
    if (owner.empty() && !bus.IsActivatable(name))
    {
        throw CFailure(EExit::NoSuchName, "nobody owns " + name + " on the bus" + suggestion(name, bus.GetNames()));
    }
    return owner;
}

} // namespace

void catchLog()
{
    log::SetThreshold(log::ELevel::Info); // the level of the rule that is missing
    log::SetSink([](log::ELevel level, std::string const& line) { lastCause().Note(level, line); });
}

void requireBusName(std::string const& name)
{
    if (!dbus_validate_utf8(name.c_str(), nullptr) || !dbus_validate_bus_name(name.c_str(), nullptr))
    {
        throw CFailure(EExit::Usage, "'" + onOneLine(name) + "' is no bus name; one looks like org.example.climate");
    }
}

CServer::CServer(CBus& bus, std::string const& name, SOptions const& options)
    : m_bus(bus),
      m_name(name),
      m_timeout(options.timeout.value_or(DEFAULT_TIMEOUT)),
      m_owner(ownerOrFail(bus, name)),
      m_port("nelo-rpc", name.c_str(), false, SPortOptions::Recommended()),
      m_client(m_port),
      m_callbackFd(m_port.GetPollFd())
{
    if (!m_port.IsOpen())
    {
        throw CFailure(EExit::NoBus, "the bus takes no further connection");
    }
    m_client.SetTimeoutMs(static_cast<int>(m_timeout.count()));
    m_client.GetConnectionProxy()->SubscribeCallback(protocol::ON_KILL,
                                                     [this](types::CValueList const&) { m_killed = true; });
}

types::CValueList CServer::Call(std::string const& typeName, int actorId, std::string const& function,
                                types::CValueList const& args)
{
    lastCause().Take();
    auto const start = steady_clock::now();
    types::CValueList result = m_client.CallFunction(typeName, actorId, function, args);
    m_duration = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);

    std::string const cause = lastCause().Take();
    if (!cause.empty())
    {
        FailWithoutReply(cause);
    }
    if (result.empty())
    {
        FailWithoutResult(typeName, actorId, function);
    }
    if (m_owner.empty())
    {
        m_owner = m_bus.GetOwner(m_name); // the call has started it
    }
    return result;
}

void CServer::FailWithoutReply(std::string const& cause)
{
    if (!m_port.IsOpen())
    {
        throw CFailure(EExit::NoBus, "the connection to the bus was lost");
    }
    if (m_duration >= m_timeout)
    {
        // The call may yet hang and be killed, and the actor with it.
        m_actors = EActors::Lost;
        throw CFailure(EExit::NoReply,
                       "no reply within " + secondsOf(m_timeout) + " s; the call may still be carried out");
    }
    RequireThere();
    throw CFailure(EExit::Refused, "refused: " + onOneLine(cause));
}

void CServer::FailWithoutResult(std::string const& typeName, int actorId, std::string const& function)
{
    if (WasKilled())
    {
        m_actors = EActors::Lost;
        throw CFailure(EExit::NoResult, "the call hung, and the server has killed it");
    }
    m_actors = EActors::Doubtful; // the news of a kill may be late
    throw CFailure(EExit::NoResult, "no result: actor " + std::to_string(actorId) + " of type " + typeName +
                                        " has no function '" + onOneLine(function) + "', or it gives nothing back");
}

bool CServer::WasKilled()
{
    pollfd news{m_callbackFd, POLLIN, 0};
    for (auto const end = steady_clock::now() + KILL_NEWS; !m_killed && steady_clock::now() < end;)
    {
        auto const left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
        ::poll(&news, 1, static_cast<int>(left.count()) + 1);
        m_port.DispatchCallbacks();
    }
    return m_killed;
}

void CServer::RequireThere()
{
    if (!m_owner.empty() && m_bus.GetOwner(m_name) != m_owner)
    {
        m_actors = EActors::Lost;
        throw CFailure(EExit::NoReply, m_name + " has left the bus; its log says why (a server that trusts its peers "
                                                "ends when it is asked for a type that it does not have, or given "
                                                "other arguments than a function takes)");
    }
}

int CServer::MakeActor(std::string const& typeName)
{
    types::CValueList args;
    args[0] = types::makeValue<std::string>(typeName);
    types::CValueList const result = Call(protocol::CONNECTION_TYPE, protocol::OWN_ACTOR_ID, protocol::CTOR, args);
    auto const id = result.find(0);
    if (id == result.end() || !types::hasType<int>(*id->second))
    {
        throw CFailure(EExit::Broken, m_name + " made no actor but answered " + typedText(result));
    }
    return types::extract<int>(*id->second);
}

void CServer::DestroyActor(std::string const& typeName, int actorId)
{
    if (m_actors == EActors::Lost || actorId == protocol::OWN_ACTOR_ID)
    {
        return;
    }
    if (m_actors == EActors::Doubtful)
    {
        m_client.CallFunction(typeName, actorId, "", {}); // no function has this name, but the actor is there now
    }
    types::CValueList args;
    args[0] = types::makeValue<int>(actorId);
    Call(protocol::CONNECTION_TYPE, protocol::OWN_ACTOR_ID, protocol::DTOR, args);
}

void CServer::WithActor(std::string const& typeName, std::function<void(int actorId)> const& work)
{
    int const actorId = MakeActor(typeName);
    try
    {
        work(actorId);
    }
    catch (CFailure const& first)
    {
        try
        {
            DestroyActor(typeName, actorId);
        }
        catch (CFailure const&) // the first failure is the one to be told
        {
        }
        throw first;
    }
    DestroyActor(typeName, actorId);
}

void CServer::Ping()
{
    types::CValueList args;
    args[0] = types::makeValue<int>(protocol::OWN_ACTOR_ID); // the one id that is never destroyed
    Call(protocol::CONNECTION_TYPE, protocol::OWN_ACTOR_ID, protocol::DTOR, args);
}

void CServer::SubscribeCallbacks(int actorId, CallbackHandler handler)
{
    m_client.SubscribeCallbacks(actorId, std::move(handler));
}
