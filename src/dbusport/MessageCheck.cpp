#include "MessageCheck.h"

#include <nelo_rpc/Refusal.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include "../Address.h"
#include "DbusNames.h"

namespace nelo_rpc::dbus
{

namespace
{

constexpr char const* INTROSPECT = "Introspect";

// Arguments are left out: a call's and a signal's depend on what is called, and no signature says so.
constexpr char const* OBJECT_DESCRIPTION = R"(<node>
  <interface name="org.trelin.nelo_rpc.Event">
    <method name="Call"/>
    <signal name="Call"/>
  </interface>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="data" type="s" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Peer">
    <method name="Ping"/>
    <method name="GetMachineId">
      <arg name="machine_uuid" type="s" direction="out"/>
    </method>
  </interface>
</node>
)";

bool isText(char const* field, char const* text)
{
    return field != nullptr && std::string(field) == text;
}

} // namespace

SObjection objectionTo(DBusMessage* message, types::CValueList& list)
{
    int const type = dbus_message_get_type(message);
    if (type != DBUS_MESSAGE_TYPE_METHOD_CALL && type != DBUS_MESSAGE_TYPE_SIGNAL)
    {
        return {DBUS_ERROR_FAILED, "neither a call nor a signal"};
    }
    // A call may leave its interface out.
    char const* const interface = dbus_message_get_interface(message);
    if (interface != nullptr && !isText(interface, INTERFACE))
    {
        return {refusal::UNKNOWN_INTERFACE, std::string("the interface should be ") + INTERFACE};
    }
    if (!isText(dbus_message_get_member(message), MEMBER))
    {
        return {refusal::UNKNOWN_METHOD, std::string("the member should be ") + MEMBER};
    }
    std::string cause = readValueList(message, list);
    if (!cause.empty())
    {
        return {refusal::INVALID_ARGS, std::move(cause)};
    }
    if (char const* const why = protocol::whyNotAddressed(list, type == DBUS_MESSAGE_TYPE_METHOD_CALL))
    {
        return {refusal::INVALID_ARGS, why};
    }
    return {};
}

bool isIntrospection(DBusMessage* message)
{
    char const* const interface = dbus_message_get_interface(message);
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
           isText(dbus_message_get_member(message), INTROSPECT) && dbus_message_has_signature(message, "") &&
           (interface == nullptr || isText(interface, DBUS_INTERFACE_INTROSPECTABLE));
}

std::string introspectionOf(std::string const& path)
{
    std::string const object = OBJECT_PATH;
    std::string const doctype = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE;
    if (path == object)
    {
        return doctype + OBJECT_DESCRIPTION;
    }
    std::string const folder = path == "/" ? path : path + "/";
    if (object.rfind(folder, 0) != 0)
    {
        return "";
    }
    std::string const child = object.substr(folder.size(), object.find('/', folder.size()) - folder.size());
    return doctype + "<node>\n  <node name=\"" + child + "\"/>\n</node>\n";
}

} // namespace nelo_rpc::dbus
