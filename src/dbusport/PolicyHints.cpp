#include "PolicyHints.h"

#include "../SystemLog.h"
#include "DbusNames.h"
#include "DbusPointers.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <optional>

namespace nelo_rpc::dbus
{

namespace
{

/// How long the bus may take for an answer that only makes a log line better.
constexpr int ANSWER_LIMIT_MS = 2000;

std::string userName(uid_t user)
{
    std::array<char, 4096> buffer;
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(user);
}

std::string processName(unsigned process)
{
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    return name;
}

bool beginsWith(std::string const& text, char const* beginning)
{
    return text.rfind(beginning, 0) == 0;
}

MessagePointer askBus(DBusConnection* connection, char const* question, std::string const& name)
{
    MessagePointer const asked(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, question));
    char const* const text = name.c_str();
    dbus_message_append_args(asked.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return MessagePointer(dbus_connection_send_with_reply_and_block(connection, asked.get(), ANSWER_LIMIT_MS, nullptr));
}

std::optional<unsigned> askNumber(DBusConnection* connection, char const* question, std::string const& name)
{
    MessagePointer const answer = askBus(connection, question, name);
    dbus_uint32_t number = 0;
    if (answer == nullptr ||
        !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID))
    {
        return std::nullopt;
    }
    return number;
}

} // namespace

void hintAtNamePolicy(DBusError const& refusal, std::string const& name)
{
    if (dbus_error_has_name(&refusal, DBUS_ERROR_ACCESS_DENIED))
    {
        logInfo() << "CDbusPort::CDbusPort the policy of the bus lacks <policy user=\"" << userName(::geteuid())
                  << "\"><allow own=\"" << name << "\"/></policy>";
    }
}

void hintAtCallPolicy(std::string const& cause, std::string const& server)
{
    // The first words of dbus-daemon and of dbus-broker. A server may refuse a call under the same error name.
    if (beginsWith(cause, "Rejected send message") || beginsWith(cause, "Sender is not authorized to send message"))
    {
        logInfo() << "CDbusPort::CallFunction the policy of the bus lacks <policy user=\"" << userName(::geteuid())
                  << "\"><allow send_destination=\"" << server << "\" send_type=\"method_call\" send_path=\""
                  << OBJECT_PATH << "\" send_interface=\"" << INTERFACE << "\"/></policy>";
    }
}

void hintAtPingPolicy()
{
    logInfo() << "CDbusPort::SendMessage the policy of the bus lacks <policy user=\"" << userName(::geteuid())
              << "\"><allow send_interface=\"" << DBUS_INTERFACE_PEER << "\" send_member=\"Ping\"/></policy>";
}

std::string describeOwner(DBusConnection* connection, std::string const& name)
{
    MessagePointer const answer = askBus(connection, "GetNameOwner", name);
    char const* owner = nullptr;
    if (answer == nullptr || !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID))
    {
        return "gone by now";
    }
    // About the owner, and not about the name, which may pass to another meanwhile.
    std::string description = owner;
    if (auto const process = askNumber(connection, "GetConnectionUnixProcessID", owner))
    {
        description += ", process " + std::to_string(*process) + " (" + processName(*process) + ")";
    }
    if (auto const user = askNumber(connection, "GetConnectionUnixUser", owner))
    {
        description += " of user " + userName(*user);
    }
    return description;
}

} // namespace nelo_rpc::dbus
