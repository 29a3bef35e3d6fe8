/// A client in a program that runs a GLib main loop: the port's descriptor is one more source of the loop, and the
/// handlers run on the loop's own thread.

#include <nelo_rpc/nelo_rpc.h>

#include <glib-unix.h>
#include <glib.h>

#include <iostream>
#include <string>

namespace
{

constexpr int WANTED = 5;

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

gboolean dispatch(gint /*fd*/, GIOCondition /*condition*/, gpointer port)
{
    static_cast<nelo_rpc::CDbusPort*>(port)->DispatchCallbacks();
    return G_SOURCE_CONTINUE;
}

/// The program's other work: a call each 100 ms. It blocks the loop until its reply is there; callbacks that arrive
/// meanwhile are kept, and the descriptor says so afterwards.
gboolean work(gpointer data)
{
    static double celsius = 20.0;
    static_cast<CThermostatProxy*>(data)->SetTarget(celsius += 1.0);
    return celsius < 20.0 + WANTED ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean giveUp(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

} // namespace

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::CDbusPort port("org.example.loop", "org.example.climate", false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(port);
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns org.example.climate on the bus\n";
        return 1;
    }
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(port.GetPollFd(), G_IO_IN, &dispatch, &port); // from here on callbacks are kept

    int received = 0;
    CThermostatProxy thermostat(client);
    thermostat.OnChanged.Subscribe([&received, loop](double celsius, std::string const& why) {
        std::cout << "changed to " << celsius << ": " << why << std::endl;
        if (++received == WANTED) // no lock: handlers run inside DispatchCallbacks(), on this thread
        {
            g_main_loop_quit(loop);
        }
    });

    g_timeout_add(100, &work, &thermostat);
    g_timeout_add_seconds(10, &giveUp, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);

    std::cout << received << " of " << WANTED << " callbacks dispatched by the loop" << std::endl;
    return received == WANTED ? 0 : 1;
}
