/// A server whose callbacks come from timers, on a thread of its own, and not from calls.

#include "CTimers.h"

#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>

namespace
{

/// Each client that makes one is sent its ticks. The timer ends before the object does, whoever destroys it.
class CClock
{
public:
    explicit CClock(CTimers& timers) : m_timers(timers) {}
    CClock(CClock const&) = delete;
    CClock& operator=(CClock const&) = delete;
    ~CClock() { m_timers.Stop(this); }

    bool Start(int periodMs)
    {
        if (periodMs < 1)
        {
            return false;
        }
        m_timers.Start(this, std::chrono::milliseconds(periodMs),
                       [this, ticks = 0]() mutable { OnTick.Send(++ticks); });
        return true;
    }

    nelo_rpc::CCallbackSender<int> OnTick;

private:
    CTimers& m_timers;
};

} // namespace

int main()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    CTimers timers; // outlives the host, and so all clocks
    nelo_rpc::CDbusPort port("org.example.clocks", true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcHost host(port, nelo_rpc::SHostOptions::Recommended(), [&timers](nelo_rpc::CRpcHost& self) {
        self.RegisterActorType<CClock>(
            "Clock",
            [](nelo_rpc::CActor& actor, CClock& clock) {
                actor.AddFunction("Start", clock, &CClock::Start);
                actor.AddCallback("OnTick", clock.OnTick);
            },
            [&timers] { return std::make_unique<CClock>(timers); });
    });
    std::cout << "the clocks are ready" << std::endl;

    int received = 0;
    sigwait(&stop, &received);
    return 0;
}
