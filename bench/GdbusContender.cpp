#include "Contender.h"
#include "InFlight.h"

#include <gio/gio.h>

/// GLib's bus library: single calls are made synchronously; answers to others, signals and the server's methods come
/// in a main loop.
namespace bench
{

namespace
{

constexpr char const* PATH = "/org/example/bench";
constexpr char const* INTERFACE = "org.example.Bench";

constexpr char const* DESCRIPTION = R"(<node>
  <interface name="org.example.Bench">
    <method name="EchoInt"><arg type="i" direction="in"/><arg type="i" direction="out"/></method>
    <method name="EchoText"><arg type="s" direction="in"/><arg type="s" direction="out"/></method>
    <method name="EchoBytes"><arg type="ay" direction="in"/><arg type="ay" direction="out"/></method>
    <method name="Publish"><arg type="i" direction="in"/></method>
    <signal name="Tick"><arg type="i"/></signal>
  </interface>
</node>)";

constexpr int NO_TIMEOUT = -1;

GDBusConnection* connectToBus()
{
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (connection == nullptr)
    {
        fail("no bus");
    }
    return connection;
}

struct SUnref
{
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, SUnref>;

class CGdbusClient : public IClient
{
public:
    explicit CGdbusClient(std::string server) : m_server(std::move(server)), m_connection(connectToBus()) {}

    int EchoInt(int value) override
    {
        Variant const result = Call("EchoInt", g_variant_new("(i)", value));
        g_variant_get(result.get(), "(i)", &value);
        return value;
    }

    std::string EchoText(std::string const& text) override
    {
        Variant const result = Call("EchoText", g_variant_new("(s)", text.c_str()));
        char const* value = nullptr;
        g_variant_get(result.get(), "(&s)", &value);
        return value;
    }

    Bytes EchoBytes(Bytes const& bytes) override
    {
        GVariant* argument = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
        Variant const result = Call("EchoBytes", g_variant_new_tuple(&argument, 1));
        Variant const array(g_variant_get_child_value(result.get(), 0));
        gsize size = 0;
        auto const* const first = static_cast<std::uint8_t const*>(g_variant_get_fixed_array(array.get(), &size, 1));
        return Bytes(first, first + size);
    }

    void ReceiveCallbacks(int count) override
    {
        m_expected = count;
        guint const subscription =
            g_dbus_connection_signal_subscribe(m_connection, nullptr, INTERFACE, "Tick", PATH, nullptr,
                                               G_DBUS_SIGNAL_FLAGS_NONE, &CGdbusClient::OnTick, this, nullptr);
        Call("Publish", g_variant_new("(i)", count));
        while (m_expected > 0)
        {
            g_main_context_iteration(nullptr, TRUE);
        }
        g_dbus_connection_signal_unsubscribe(m_connection, subscription);
    }

    void EchoInFlight(int calls, int window) override
    {
        CInFlight inFlight(calls, window, [this](CInFlight::SPlace& place) {
            g_dbus_connection_call(m_connection, m_server.c_str(), PATH, INTERFACE, "EchoInt",
                                   g_variant_new("(i)", place.value), nullptr, G_DBUS_CALL_FLAGS_NONE, NO_TIMEOUT,
                                   nullptr, &CGdbusClient::OnAnswer, &place);
        });
        inFlight.Start();
        while (!inFlight.IsDone())
        {
            g_main_context_iteration(nullptr, TRUE);
        }
    }

private:
    static void OnAnswer(GObject* connection, GAsyncResult* result, gpointer place)
    {
        Variant const reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr));
        if (reply == nullptr)
        {
            fail("no reply");
        }
        int answer = 0;
        g_variant_get(reply.get(), "(i)", &answer);
        auto& answered = *static_cast<CInFlight::SPlace*>(place);
        answered.calls.Answer(answered, answer);
    }

    static void OnTick(GDBusConnection*, char const*, char const*, char const*, char const*, GVariant*, gpointer client)
    {
        --static_cast<CGdbusClient*>(client)->m_expected;
    }

    Variant Call(char const* function, GVariant* arguments)
    {
        Variant result(g_dbus_connection_call_sync(m_connection, m_server.c_str(), PATH, INTERFACE, function, arguments,
                                                   nullptr, G_DBUS_CALL_FLAGS_NONE, NO_TIMEOUT, nullptr, nullptr));
        if (result == nullptr)
        {
            fail("no reply");
        }
        return result;
    }

    std::string m_server;
    GDBusConnection* m_connection;
    int m_expected = 0;
};

void publish(GDBusConnection* connection, char const* receiver, int count)
{
    for (int i = 0; i < count; ++i)
    {
        g_dbus_connection_emit_signal(connection, receiver, PATH, INTERFACE, "Tick", g_variant_new("(i)", i), nullptr);
    }
}

void onCall(GDBusConnection* connection, char const* sender, char const*, char const*, char const* function,
            GVariant* arguments, GDBusMethodInvocation* invocation, gpointer)
{
    if (g_strcmp0(function, "Publish") != 0)
    {
        g_dbus_method_invocation_return_value(invocation, arguments);
        return;
    }
    int count = 0;
    g_variant_get(arguments, "(i)", &count);
    std::string const receiver = sender;
    g_dbus_method_invocation_return_value(invocation, nullptr);
    publish(connection, receiver.c_str(), count);
}

} // namespace

std::unique_ptr<IClient> makeClient(std::string const& /*variant*/, std::string const& server)
{
    return std::make_unique<CGdbusClient>(server);
}

void serve(std::string const& /*variant*/, std::string const& name, std::function<void()> const& ready)
{
    GDBusConnection* const connection = connectToBus();
    GDBusNodeInfo* const description = g_dbus_node_info_new_for_xml(DESCRIPTION, nullptr);
    GDBusInterfaceVTable const functions = {&onCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection, PATH, description->interfaces[0], &functions, nullptr, nullptr,
                                      nullptr);
    auto const owned = [](GDBusConnection*, char const*, gpointer f) {
        (*static_cast<std::function<void()> const*>(f))();
    };
    g_bus_own_name_on_connection(connection, name.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE, +owned, nullptr,
                                 const_cast<std::function<void()>*>(&ready), nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    fail("the loop has ended");
}

} // namespace bench
