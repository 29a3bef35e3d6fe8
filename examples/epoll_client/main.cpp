/// A client that has an event loop already and wants no further thread: the port's descriptor is one
/// more thing that the loop waits for, and the handlers run on the loop's own thread.

#include <nelo_rpc/nelo_rpc.h>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <string>

namespace
{

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

bool watch(int loop, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return ::epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event) == 0;
}

/// A descriptor that becomes readable every 100 ms: this program's other work.
int makeTimer()
{
    int const timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    itimerspec every{};
    every.it_value.tv_nsec = 100 * 1000 * 1000;
    every.it_interval = every.it_value;
    return timer != -1 && ::timerfd_settime(timer, 0, &every, nullptr) == 0 ? timer : -1;
}

} // namespace

int main()
{
    constexpr int WANTED = 5;
    constexpr int MAX_TICKS = 100; // the loop's bound: ten seconds

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::CDbusPort port("org.example.loop", "org.example.climate", false);
    nelo_rpc::CRpcClient client(port);
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns org.example.climate on the bus\n";
        return 1;
    }

    int const callbacks = port.GetPollFd(); // from here on callbacks are kept

    int received = 0;
    CThermostatProxy thermostat(client);
    thermostat.OnChanged.Subscribe([&received](double celsius, std::string const& why) {
        ++received; // no lock: handlers run inside DispatchCallbacks(), on this thread
        std::cout << "changed to " << celsius << ": " << why << std::endl;
    });

    int const loop = ::epoll_create1(EPOLL_CLOEXEC);
    int const timer = makeTimer();
    if (loop == -1 || timer == -1 || !watch(loop, timer) || !watch(loop, callbacks))
    {
        std::cerr << "cannot build the loop\n";
        return 1;
    }

    for (int ticks = 0; received < WANTED && ticks < MAX_TICKS;)
    {
        epoll_event ready{};
        if (::epoll_wait(loop, &ready, 1, 1000) != 1)
        {
            continue;
        }
        if (ready.data.fd == callbacks)
        {
            port.DispatchCallbacks();
            continue;
        }

        std::uint64_t expirations = 0;
        if (::read(timer, &expirations, sizeof(expirations)) == sizeof(expirations) && ticks++ < WANTED)
        {
            // A call blocks the loop until its reply is there. Callbacks that arrive meanwhile are kept,
            // and the descriptor says so afterwards.
            thermostat.SetTarget(20.0 + ticks);
        }
    }
    ::close(timer);
    ::close(loop);

    std::cout << received << " of " << WANTED << " callbacks dispatched by the loop" << std::endl;
    return received == WANTED ? 0 : 1;
}
