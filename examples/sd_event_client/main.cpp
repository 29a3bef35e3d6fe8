/// A client in a program that runs an sd-event loop: the port's descriptor is one more source of the loop, and the
/// handlers run on the loop's own thread.

#include <nelo_rpc/nelo_rpc.h>

#include <systemd/sd-event.h>

#include <sys/epoll.h>

#include <cstdint>
#include <iostream>
#include <string>

namespace
{

constexpr int WANTED = 5;
constexpr std::uint64_t SECOND = 1000000; // sd-event counts microseconds

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

int dispatch(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/, void* port)
{
    static_cast<nelo_rpc::CDbusPort*>(port)->DispatchCallbacks();
    return 0;
}

/// The program's other work: a call each 100 ms. It blocks the loop until its reply is there; callbacks that arrive
/// meanwhile are kept, and the descriptor says so afterwards.
int work(sd_event_source* source, std::uint64_t /*time*/, void* data)
{
    static double celsius = 20.0;
    static_cast<CThermostatProxy*>(data)->SetTarget(celsius += 1.0);
    if (celsius < 20.0 + WANTED)
    {
        sd_event_source_set_time_relative(source, SECOND / 10);
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    }
    return 0;
}

int giveUp(sd_event_source* source, std::uint64_t /*time*/, void* /*data*/)
{
    return sd_event_exit(sd_event_source_get_event(source), 0);
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

    int received = 0;
    sd_event* loop = nullptr;
    // The descriptor is asked for before there is an actor: from here on callbacks are kept.
    if (sd_event_default(&loop) < 0 || sd_event_add_io(loop, nullptr, port.GetPollFd(), EPOLLIN, &dispatch, &port) < 0)
    {
        std::cerr << "cannot build the loop\n";
        return 1;
    }
    CThermostatProxy thermostat(client);
    thermostat.OnChanged.Subscribe([&received, loop](double celsius, std::string const& why) {
        std::cout << "changed to " << celsius << ": " << why << std::endl;
        if (++received == WANTED) // no lock: handlers run inside DispatchCallbacks(), on this thread
        {
            sd_event_exit(loop, 0);
        }
    });

    if (sd_event_add_time_relative(loop, nullptr, CLOCK_MONOTONIC, SECOND / 10, 0, &work, &thermostat) < 0 ||
        sd_event_add_time_relative(loop, nullptr, CLOCK_MONOTONIC, 10 * SECOND, 0, &giveUp, nullptr) < 0)
    {
        std::cerr << "cannot set the timers\n";
        return 1;
    }
    sd_event_loop(loop);
    sd_event_unref(loop);

    std::cout << received << " of " << WANTED << " callbacks dispatched by the loop" << std::endl;
    return received == WANTED ? 0 : 1;
}
