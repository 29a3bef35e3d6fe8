/// A client for the campaigns, to be killed: comes to the stage that it is given, says "at the stage" and stays there.
///
/// usage: StressClientProgram <server's bus name> <its number> <stage>
///
/// stages:  "before a call", "in a call", "after a call", "in a callback", "in construction", "in destruction", and
///          "anywhere": calls, callbacks, actors that come and go on two threads without an end, and nothing is said
/// says "wrong <what>" about an answer or a callback that is not as it should be.

#include "ProgramSupport.h"
#include "StressTypes.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

[[noreturn]] void stay()
{
    say("at the stage");
    for (;;)
    {
        std::this_thread::sleep_for(std::chrono::seconds(60));
    }
}

/// What the server has parked sends a callback first: its handler is on the delivery's thread, so the call stays.
void stayWhenParked(CStepperProxy& stepper, int number)
{
    stepper.OnParked.Subscribe([](std::string const&) { stay(); });
    stepper.Identify(number);
}

void check(bool isRight, std::string const& what)
{
    if (!isRight)
    {
        say("wrong " + what);
    }
}

/// Mixed calls of one thread. An answer is allowed to be missing only at the end of the process, which it does not see.
void workForEver(nelo_rpc::CRpcClient& client)
{
    CStepperProxy stepper(client);
    std::atomic<int> lastStep{0};
    stepper.OnStep.Subscribe([&](int step) { check(step == ++lastStep, "callback"); });
    stepper.OnTick.Subscribe([](int) {});
    std::vector<std::uint8_t> const large(100000, 0xa5);
    for (int number = 1;; ++number)
    {
        std::string const text(static_cast<std::size_t>(number % 300), 'x');
        check(stepper.Step(number, text) == answerToStep(number, text), "step");
        switch (number % 8)
        {
        case 1:
            stepper.Burst(5);
            break;
        case 3:
        {
            CStepperProxy other(client);
            check(other.Step(1, "other") == answerToStep(1, "other"), "step of another");
            break;
        }
        case 5:
            check(stepper.Echo(large) == large, "echo");
            break;
        default:
            break;
        }
    }
}

void goTo(std::string const& stage, nelo_rpc::CRpcClient& client, int number)
{
    if (stage == "anywhere")
    {
        std::thread second([&] { workForEver(client); });
        workForEver(client);
    }
    if (stage == "before a call")
    {
        stay();
    }
    auto stepper = std::make_unique<CStepperProxy>(client);
    if (stage == "after a call")
    {
        check(stepper->Step(1, "x") == answerToStep(1, "x"), "step");
        stay();
    }
    if (stage == "in a callback")
    {
        stepper->OnStep.Subscribe([](int) { stay(); });
        stepper->Step(1, "x");
        stepper->Steps();
        std::this_thread::sleep_for(std::chrono::seconds(60));
    }
    stayWhenParked(*stepper, number);
    if (stage == "in a call")
    {
        stepper->Park();
    }
    else if (stage == "in construction")
    {
        CStepperProxy(client, SLOW_TO_MAKE);
    }
    else if (stage == "in destruction")
    {
        CStepperProxy(client, SLOW_TO_END);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
    {
        return 2;
    }
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal);
    int const number = std::atoi(argv[2]);
    std::string const name = "org.trelin.nelo_rpc.test.Victim" + std::to_string(number);
    nelo_rpc::CDbusPort port(name.c_str(), argv[1], false);
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery const delivery(port);
    goTo(argv[3], client, number);
    say("wrong end"); // every stage ends with the death of the program
    std::this_thread::sleep_for(std::chrono::seconds(60));
    return 1;
}
