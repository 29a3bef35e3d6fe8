#include "CBus.h"

#include "Failure.h"

namespace
{

constexpr std::chrono::seconds BUS_LIMIT(10);

class CError
{
public:
    CError() { dbus_error_init(&m_error); }
    CError(CError const&) = delete;
    CError& operator=(CError const&) = delete;
    ~CError() { dbus_error_free(&m_error); }

    DBusError* Get() { return &m_error; }
    std::string Text() const { return textOf(m_error.message); }

private:
    DBusError m_error;
};

bool isError(MessagePointer const& message)
{
    return message == nullptr || dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR;
}

/// The numbers of an a{sv} that stand under two keys; 32-bit as the bus gives them.
std::optional<CBus::SProcess> processFrom(DBusMessage& credentials)
{
    std::optional<unsigned long> pid;
    std::optional<unsigned long> uid;
    DBusMessageIter body;
    DBusMessageIter entry;
    if (!dbus_message_has_signature(&credentials, "a{sv}"))
    {
        return std::nullopt;
    }
    dbus_message_iter_init(&credentials, &body);
    for (dbus_message_iter_recurse(&body, &entry); dbus_message_iter_get_arg_type(&entry) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&entry))
    {
        DBusMessageIter field;
        DBusMessageIter variant;
        char const* key = nullptr;
        dbus_message_iter_recurse(&entry, &field);
        dbus_message_iter_get_basic(&field, &key);
        dbus_message_iter_next(&field);
        dbus_message_iter_recurse(&field, &variant);
        if (dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_UINT32)
        {
            continue;
        }
        dbus_uint32_t number = 0;
        dbus_message_iter_get_basic(&variant, &number);
        if (textOf(key) == "ProcessID")
        {
            pid = number;
        }
        else if (textOf(key) == "UnixUserID")
        {
            uid = number;
        }
    }
    return pid && uid ? std::make_optional(CBus::SProcess{*pid, *uid}) : std::nullopt;
}

} // namespace

CBus::CBus() : m_connection(nullptr)
{
    CError error;
    m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get());
    if (m_connection == nullptr)
    {
        throw CFailure(EExit::NoBus, "the system bus cannot be reached: " + error.Text());
    }
    // A connection of this kind ends the process when it closes, unless told not to.
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
}

CBus::~CBus()
{
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
}

MessagePointer CBus::AskBus(char const* member, char const* argument)
{
    MessagePointer const call(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    if (argument != nullptr)
    {
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
    }
    MessagePointer reply = Ask(*call, BUS_LIMIT);
    if (!dbus_connection_get_is_connected(m_connection))
    {
        throw CFailure(EExit::NoBus, "the connection to the bus was lost");
    }
    if (reply == nullptr || textOf(dbus_message_get_error_name(reply.get())) == DBUS_ERROR_NO_REPLY)
    {
        throw CFailure(EExit::NoBus, "the bus does not answer");
    }
    return reply;
}

std::vector<std::string> CBus::AskForNames(char const* member)
{
    MessagePointer const reply = AskBus(member);
    char** names = nullptr;
    int count = 0;
    if (isError(reply) || !dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &names,
                                                 &count, DBUS_TYPE_INVALID))
    {
        return {};
    }
    std::vector<std::string> const list(names, names + count);
    dbus_free_string_array(names);
    return list;
}

std::vector<std::string> CBus::GetNames()
{
    return AskForNames("ListNames");
}

bool CBus::IsActivatable(std::string const& name)
{
    for (std::string const& candidate : AskForNames("ListActivatableNames"))
    {
        if (candidate == name)
        {
            return true;
        }
    }
    return false;
}

std::string CBus::GetOwner(std::string const& name)
{
    MessagePointer const reply = AskBus("GetNameOwner", name.c_str());
    char const* owner = nullptr;
    bool const isThere =
        !isError(reply) && dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
    return isThere ? owner : "";
}

std::optional<CBus::SProcess> CBus::GetProcess(std::string const& name)
{
    MessagePointer const reply = AskBus("GetConnectionCredentials", name.c_str());
    return isError(reply) ? std::nullopt : processFrom(*reply);
}

MessagePointer CBus::Ask(DBusMessage& call, std::chrono::milliseconds limit)
{
    dbus_message_set_auto_start(&call, FALSE);
    DBusPendingCall* pending = nullptr;
    int const limitMs = static_cast<int>(limit.count());
    if (!dbus_connection_send_with_reply(m_connection, &call, &pending, limitMs) || pending == nullptr)
    {
        return nullptr;
    }
    // Unlike the bus library's own "and block", this gives an error reply as it came.
    dbus_pending_call_block(pending);
    MessagePointer reply(dbus_pending_call_steal_reply(pending));
    dbus_pending_call_unref(pending);
    return reply;
}

void CBus::WatchOwner(std::string const& name)
{
    std::string const rule = "type='signal',sender='" DBUS_SERVICE_DBUS "',interface='" DBUS_INTERFACE_DBUS
                             "',member='NameOwnerChanged',arg0='" +
                             name + "'";
    AskBus("AddMatch", rule.c_str());
}

void CBus::BecomeMonitor(std::vector<std::string> const& rules)
{
    MessagePointer const call(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_MONITORING, "BecomeMonitor"));
    std::vector<char const*> texts;
    for (std::string const& rule : rules)
    {
        texts.push_back(rule.c_str());
    }
    char const* const* const first = texts.data();
    dbus_uint32_t const flags = 0;
    dbus_message_append_args(call.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &first, static_cast<int>(texts.size()),
                             DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID);
    MessagePointer const reply = Ask(*call, BUS_LIMIT);
    if (isError(reply))
    {
        CError error;
        bool const isRefusal = reply != nullptr && dbus_set_error_from_message(error.Get(), reply.get());
        throw CFailure(isRefusal ? EExit::Refused : EExit::NoBus,
                       isRefusal ? "the bus does not let this user watch its traffic (root may): " + error.Text()
                                 : "the bus does not answer");
    }
}

int CBus::GetFd() const
{
    int fd = -1;
    dbus_connection_get_unix_fd(m_connection, &fd);
    return fd;
}

MessagePointer CBus::Next()
{
    dbus_connection_read_write(m_connection, 0);
    MessagePointer message(dbus_connection_pop_message(m_connection));
    if (message != nullptr && dbus_message_is_signal(message.get(), DBUS_INTERFACE_LOCAL, "Disconnected"))
    {
        throw CFailure(EExit::NoBus, "the connection to the bus was lost");
    }
    return message;
}

bool isOwnerChange(DBusMessage& message, std::string& name, std::string& oldOwner, std::string& newOwner)
{
    char const* changed = nullptr;
    char const* before = nullptr;
    char const* after = nullptr;
    if (!dbus_message_is_signal(&message, DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
        textOf(dbus_message_get_sender(&message)) != DBUS_SERVICE_DBUS ||
        !dbus_message_get_args(&message, nullptr, DBUS_TYPE_STRING, &changed, DBUS_TYPE_STRING, &before,
                               DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID))
    {
        return false;
    }
    name = changed;
    oldOwner = before;
    newOwner = after;
    return true;
}

std::string textOf(char const* text)
{
    return text != nullptr ? text : "";
}
