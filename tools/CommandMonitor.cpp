#include "CBus.h"
#include "CServer.h"
#include "CWait.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

#include <map>
#include <utility>

using nelo_rpc::types::CValueList;
using std::chrono::steady_clock;

namespace
{

constexpr char const* OBJECT_PATH = "/org/trelin/nelo_rpc";

/// Which well-known names the owner of a unique name has, kept up to date by what the bus says.
class CNames
{
public:
    void Ask(CBus& bus)
    {
        for (std::string const& name : bus.GetNames())
        {
            if (name[0] != ':')
            {
                m_owners[name] = bus.GetOwner(name);
            }
        }
    }

    void Change(std::string const& name, std::string const& owner)
    {
        if (owner.empty())
        {
            m_owners.erase(name);
        }
        else if (name[0] != ':')
        {
            m_owners[name] = owner;
        }
    }

    /// The unique name behind a name; the name itself if that is not known.
    std::string OwnerOf(std::string const& name) const
    {
        auto const entry = m_owners.find(name);
        return entry != m_owners.end() ? entry->second : name;
    }

    /// A well-known name of somebody, or else the name itself.
    std::string LabelOf(std::string const& uniqueName) const
    {
        for (auto const& [name, owner] : m_owners)
        {
            if (owner == uniqueName)
            {
                return name;
            }
        }
        return uniqueName;
    }

private:
    std::map<std::string, std::string> m_owners;
};

/// One message of the protocol, as it is shown.
struct SSeen
{
    char const* kind;
    EColour colour;
    std::string from;
    std::string to;
    std::string text;   ///< what it says, for people
    std::string fields; ///< the same for machines: ,"key":value ...
    std::optional<std::chrono::microseconds> duration;
};

/// A body as text, for people and for machines. Somebody else has written it, so it may be ill-formed.
struct SBody
{
    explicit SBody(DBusMessage& message) : cause(nelo_rpc::dbus::readValueList(&message, list)) {}

    std::string Text() const { return cause.empty() ? typedText(list) : " ill-formed: " + cause; }
    std::string Json(char const* key) const
    {
        return cause.empty() ? ",\"" + std::string(key) + "\":" + json(list) : ",\"ill_formed\":" + jsonText(cause);
    }

    CValueList list;
    std::string const cause;
};

/// An id of numberAt() for machines: a number as with the other commands, or null if the message has none.
std::string actorField(std::string const& id)
{
    return ",\"actor\":" + (id == "?" ? std::string("null") : id);
}

/// Picks the protocol's messages out of what passes, and puts replies and their calls together.
class CTraffic
{
public:
    /// @param name  the server whose traffic counts; empty for all.
    explicit CTraffic(std::string name) : m_name(std::move(name)) {}

    CNames& GetNames() { return m_names; }

    /// What there is to show of a message; nothing if it is none of ours.
    std::optional<SSeen> Look(DBusMessage& message)
    {
        std::string name;
        std::string oldOwner;
        std::string newOwner;
        if (isOwnerChange(message, name, oldOwner, newOwner))
        {
            m_names.Change(name, newOwner);
            Forget(newOwner.empty() ? name : "");
            return std::nullopt;
        }
        bool const isOurs = textOf(dbus_message_get_path(&message)) == OBJECT_PATH;
        switch (dbus_message_get_type(&message))
        {
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return isOurs ? Call(message) : std::nullopt;
        case DBUS_MESSAGE_TYPE_SIGNAL:
            return isOurs ? Callback(message) : std::nullopt;
        default:
            return Reply(message);
        }
    }

private:
    using CallId = std::pair<std::string, dbus_uint32_t>; // who called, and the call's serial

    struct SCall
    {
        steady_clock::time_point time;
        std::string label;  // what was called, for people
        std::string fields; // and for machines
        std::string to;
    };

    bool IsWanted(std::string const& name) const
    {
        return m_name.empty() || name == m_name || m_names.OwnerOf(name) == m_names.OwnerOf(m_name);
    }

    /// Calls of somebody who has left are not answered any more.
    void Forget(std::string const& client)
    {
        auto const first = m_calls.lower_bound({client, 0});
        auto last = first;
        while (last != m_calls.end() && last->first.first == client)
        {
            ++last;
        }
        m_calls.erase(first, last);
    }

    std::optional<SSeen> Call(DBusMessage& message)
    {
        std::string const from = textOf(dbus_message_get_sender(&message));
        std::string const to = textOf(dbus_message_get_destination(&message));
        if (!IsWanted(to))
        {
            return std::nullopt;
        }
        using namespace nelo_rpc::protocol;
        SBody const body(message);
        std::string const type = textAt(body.list, TYPE_NAME);
        std::string const actor = numberAt(body.list, ACTOR_ID);
        std::string const function = textAt(body.list, METHOD_NAME);
        std::string const label = onOneLine(type + "#" + actor + "." + function);
        std::string const fields =
            ",\"type\":" + jsonText(type) + actorField(actor) + ",\"function\":" + jsonText(function);
        m_calls[{from, dbus_message_get_serial(&message)}] = {steady_clock::now(), label, fields, to};
        return SSeen{"call",
                     EColour::Blue,
                     m_names.LabelOf(from),
                     m_names.LabelOf(to),
                     label + body.Text(),
                     fields + body.Json("arguments"),
                     std::nullopt};
    }

    std::optional<SSeen> Callback(DBusMessage& message)
    {
        std::string const from = textOf(dbus_message_get_sender(&message));
        if (!IsWanted(from))
        {
            return std::nullopt;
        }
        using namespace nelo_rpc::protocol;
        SBody const body(message);
        std::string const actor = numberAt(body.list, ACTOR_ID);
        std::string const callback = textAt(body.list, METHOD_NAME);
        return SSeen{"callback",
                     EColour::Yellow,
                     m_names.LabelOf(from),
                     m_names.LabelOf(textOf(dbus_message_get_destination(&message))),
                     onOneLine("#" + actor + "." + callback) + body.Text(),
                     actorField(actor) + ",\"callback\":" + jsonText(callback) + body.Json("payload"),
                     std::nullopt};
    }

    std::optional<SSeen> Reply(DBusMessage& message)
    {
        std::string const to = textOf(dbus_message_get_destination(&message));
        auto const call = m_calls.find({to, dbus_message_get_reply_serial(&message)});
        if (call == m_calls.end())
        {
            return std::nullopt;
        }
        SCall const answered = call->second;
        m_calls.erase(call);

        SSeen seen{"result", EColour::Green, m_names.LabelOf(answered.to), m_names.LabelOf(to), "", "", std::nullopt};
        seen.duration = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - answered.time);
        if (dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_ERROR)
        {
            char const* cause = nullptr;
            dbus_message_get_args(&message, nullptr, DBUS_TYPE_STRING, &cause, DBUS_TYPE_INVALID);
            std::string const error = textOf(dbus_message_get_error_name(&message));
            seen.kind = "error";
            seen.colour = EColour::Red;
            seen.text = answered.label + " " + error + ": " + onOneLine(textOf(cause));
            seen.fields = answered.fields + ",\"error\":" + jsonText(error) + ",\"cause\":" + jsonText(textOf(cause));
            return seen;
        }
        SBody const body(message);
        seen.text = answered.label + " = " + body.Text();
        seen.fields = answered.fields + body.Json("result");
        return seen;
    }

    std::string const m_name;
    CNames m_names;
    std::map<CallId, SCall> m_calls;
};

void show(SSeen const& seen, bool asJson)
{
    std::string const ms = seen.duration ? inMilliseconds(*seen.duration) : "";
    if (asJson)
    {
        print("{\"time\":" + jsonText(timeStamp()) + ",\"kind\":" + jsonText(seen.kind) +
              ",\"from\":" + jsonText(seen.from) + ",\"to\":" + jsonText(seen.to) + seen.fields +
              (seen.duration ? ",\"ms\":" + ms : "") + "}");
        return;
    }
    std::string kind = seen.kind;
    kind.resize(8, ' ');
    print(timeOfDay() + "  " + coloured(seen.colour, kind) + "  " + seen.from + " -> " + seen.to + "  " + seen.text +
          (seen.duration ? "  " + ms + " ms" : ""));
}

void follow(SOptions const& options, CWait const& wait, CBus& bus, CTraffic& traffic)
{
    long count = 0;
    CWait::Moment limit = CWait::After(options.timeout);
    for (;;)
    {
        while (MessagePointer const message = bus.Next())
        {
            auto const seen = traffic.Look(*message);
            if (!seen)
            {
                continue;
            }
            show(*seen, options.json);
            limit = CWait::After(options.timeout);
            ++count;
            if (options.count && count >= *options.count)
            {
                return;
            }
        }
        CWait::EEnd const end = wait.Until({bus.GetFd()}, limit);
        if (end == CWait::EEnd::Interrupted)
        {
            return;
        }
        if (end == CWait::EEnd::TimedOut)
        {
            throw CFailure(EExit::NoReply, "no message came in time, after " + std::to_string(count) + " of them");
        }
    }
}

} // namespace

void monitorTraffic(SOptions const& options)
{
    std::string const name = options.words.empty() ? "" : options.words[0];
    if (!name.empty())
    {
        requireBusName(name);
    }
    CWait const wait;
    CBus bus;
    CBus questions; // a monitor cannot ask any more
    CTraffic traffic(name);
    // Replies have no path. Which are ours shows by the calls that they answer.
    std::string const path = std::string(",path='") + OBJECT_PATH + "'";
    bus.BecomeMonitor({"type='method_call'" + path, "type='signal'" + path, "type='method_return'", "type='error'",
                       "type='signal',sender='" DBUS_SERVICE_DBUS "',member='NameOwnerChanged'"});
    traffic.GetNames().Ask(questions);
    follow(options, wait, bus, traffic);
}
