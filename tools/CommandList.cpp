#include "CBus.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

#include <nelo_rpc/nelo_rpc.h>

#include <pwd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

/// How servers are found, and by whom that is noticed. Nothing on the bus says who is a server. Whether a process has
/// the library loaded can be seen without any message, so that is what decides by default; it needs the right to look
/// into the process. A name is sent something only if the user asks for it.

namespace
{

/// A node above the object: a server that trusts its peers takes every message to the object itself for one of the
/// protocol, and ends if it is not.
constexpr char const* NODE_ABOVE = "/org/trelin";
constexpr char const* NODE_OF_OURS = "<node name=\"nelo_rpc\"/>";

enum class EKnowledge
{
    Unknown, ///< it cannot be told
    No,
    Yes
};

struct SServer
{
    std::string name;
    std::string owner;
    CBus::SProcess process;
    std::string program;
    char const* knownBy; ///< how it showed: "library", "description" or "answer"
};

/// Whether the library is among the files that a process has mapped.
EKnowledge hasLibrary(unsigned long pid)
{
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    bool any = false;
    while (std::getline(maps, line))
    {
        any = true;
        if (line.find("/libnelo-rpc.so") != std::string::npos)
        {
            return EKnowledge::Yes;
        }
    }
    return any ? EKnowledge::No : EKnowledge::Unknown; // an empty file is one that may not be read
}

std::string programOf(unsigned long pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string program;
    return std::getline(file, program) ? onOneLine(program) : "?";
}

std::string userOf(unsigned long uid)
{
    passwd const* const entry = ::getpwuid(static_cast<uid_t>(uid));
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

/// A server that does not trust its peers describes itself to everybody, and keeps nothing of the one who asks.
bool describesItself(CBus& bus, std::string const& owner, std::chrono::milliseconds limit)
{
    MessagePointer const call(
        dbus_message_new_method_call(owner.c_str(), NODE_ABOVE, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
    MessagePointer const reply = bus.Ask(*call, limit);
    char const* text = nullptr;
    return reply != nullptr && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
           dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) &&
           std::string(text).find(NODE_OF_OURS) != std::string::npos;
}

/// Any server answers this with true, and it changes nothing there, but the server keeps us as a client.
bool answers(CBus& bus, std::string const& owner, std::chrono::milliseconds limit)
{
    using namespace nelo_rpc;
    types::CValueList list;
    list[protocol::TYPE_NAME] = types::makeValue<std::string>(protocol::CONNECTION_TYPE);
    list[protocol::ACTOR_ID] = types::makeValue<int>(protocol::OWN_ACTOR_ID);
    list[protocol::METHOD_NAME] = types::makeValue<std::string>(protocol::DTOR);
    list[0] = types::makeValue<int>(protocol::OWN_ACTOR_ID);
    MessagePointer const call(dbus::valueListToFunctionCall(owner, list));
    MessagePointer const reply = bus.Ask(*call, limit);
    types::CValueList result;
    return reply != nullptr && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
           dbus::readValueList(reply.get(), result).empty() && result.count(0) == 1;
}

/// Looks at one owner of names after the other.
class CSearch
{
public:
    CSearch(CBus& bus, SOptions const& options)
        : m_bus(bus), m_asks(options.ask), m_limit(options.timeout.value_or(std::chrono::seconds(2)))
    {
    }

    std::vector<SServer> Run()
    {
        std::vector<SServer> servers;
        std::vector<std::string> names = m_bus.GetNames();
        std::sort(names.begin(), names.end());
        for (std::string const& name : names)
        {
            bool const isWellKnown = name[0] != ':' && name != DBUS_SERVICE_DBUS;
            std::string const owner = isWellKnown ? m_bus.GetOwner(name) : "";
            auto const process = owner.empty() ? std::nullopt : m_bus.GetProcess(owner);
            if (!process)
            {
                continue; // it has left since, or says nothing of itself
            }
            if (char const* const how = LookAt(owner, process->pid))
            {
                servers.push_back({name, owner, *process, programOf(process->pid), how});
            }
        }
        return servers;
    }

    /// How many owners of names it could not look into.
    std::size_t GetUnknownCount() const { return m_unknown.size(); }

private:
    /// How the owner shows that it is a server; null if it does not.
    char const* LookAt(std::string const& owner, unsigned long pid)
    {
        auto const known = m_known.find(owner);
        if (known != m_known.end())
        {
            return known->second;
        }
        char const* const how = m_asks ? AskOwner(owner) : LookInto(owner, pid);
        m_known[owner] = how;
        return how;
    }

    char const* AskOwner(std::string const& owner)
    {
        if (describesItself(m_bus, owner, m_limit))
        {
            return "description";
        }
        return answers(m_bus, owner, m_limit) ? "answer" : nullptr;
    }

    char const* LookInto(std::string const& owner, unsigned long pid)
    {
        EKnowledge const knowledge = hasLibrary(pid);
        if (knowledge == EKnowledge::Unknown)
        {
            m_unknown.insert(owner);
        }
        return knowledge == EKnowledge::Yes ? "library" : nullptr;
    }

    CBus& m_bus;
    bool const m_asks;
    std::chrono::milliseconds const m_limit;
    std::map<std::string, char const*> m_known;
    std::set<std::string> m_unknown;
};

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

void printTable(std::vector<SServer> const& servers)
{
    std::size_t width = 4;
    for (SServer const& server : servers)
    {
        width = std::max(width, server.name.size());
    }
    if (!servers.empty())
    {
        print(padded("NAME", width) + "  " + padded("PID", 8) + padded("USER", 12) + "PROGRAM");
    }
    for (SServer const& server : servers)
    {
        print(coloured(EColour::Green, padded(server.name, width)) + "  " +
              padded(std::to_string(server.process.pid), 8) + padded(userOf(server.process.uid), 12) + server.program);
    }
}

void printJson(SServer const& server)
{
    print("{\"name\":" + jsonText(server.name) + ",\"owner\":" + jsonText(server.owner) +
          ",\"pid\":" + std::to_string(server.process.pid) + ",\"uid\":" + std::to_string(server.process.uid) +
          ",\"program\":" + jsonText(server.program) + ",\"known_by\":" + jsonText(server.knownBy) + "}");
}

} // namespace

void listServers(SOptions const& options)
{
    CBus bus;
    CSearch search(bus, options);
    std::vector<SServer> const servers = search.Run();
    if (options.json)
    {
        std::for_each(servers.begin(), servers.end(), &printJson);
    }
    else
    {
        printTable(servers);
    }
    if (search.GetUnknownCount() != 0)
    {
        std::cerr << "nelo-rpc: " << search.GetUnknownCount()
                  << " other owners of names belong to processes that this user may not look into; root may, and "
                     "--ask asks them\n";
    }
}
