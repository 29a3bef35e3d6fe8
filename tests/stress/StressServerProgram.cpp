/// A server for the campaigns: serves steppers under the bus name given.
///
/// usage: StressServerProgram <bus name> [<option>=<number>]...
///
/// options:  hang, check   the watchdog's limit and period in ms
///           tick          every so many ms OnTick goes to all steppers; without it never
///           trusted       1: port and host trust their peers
///           deferred      1: hung workers are cancelled at cancellation points only
///           debug         1: every line of the log is put together (and dropped)
/// says:     "ready", "fatal <line>" for fatal lines of the log
/// is told:  objects        says "objects <number>" of steppers that live
///           disorder       says "disorder <number>" of steps that did not come in order
///           floods         says "floods <number>" of floods that have been sent
///           release <n>    lets go on what client <n> has parked; "release all" everything, from now on
///           drop / host    destroys the host ("dropped"), makes one ("ready")
///           exit           ends without cleaning up
///           stop           ends in good order, as the end of the input does

#include "CHang.h"
#include "HungWays.h"
#include "ProgramSupport.h"
#include "StressOptions.h"
#include "StressTypes.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

namespace
{

using Octets = std::vector<std::uint8_t>;

std::atomic<int> g_objects{0};
std::atomic<int> g_disorder{0};
std::atomic<int> g_floods{0};

/// Hangs the calling thread in the next line of the log that it writes.
thread_local bool t_hangInNextLine = false;

/// Where functions wait for their release.
class CParking
{
public:
    static CParking& Get()
    {
        static CParking& parking = *new CParking; // never destroyed: threads may be alive at exit
        return parking;
    }

    void Wait(int id)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_released.wait_for(lock, std::chrono::seconds(10), [&] { return m_all || m_free.count(id) != 0; });
    }

    void Release(int id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_free.insert(id);
        m_released.notify_all();
    }

    void ReleaseAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_all = true;
        m_released.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    std::set<int> m_free;
    bool m_all = false;
};

class CStepper;

/// The stepper that its client called last on this thread, which is that client's alone while it has a stepper.
thread_local CStepper* t_latest = nullptr;

class CStepper
{
public:
    CStepper();
    ~CStepper();

    std::string Step(int number, std::string text)
    {
        t_latest = this;
        // A first step may have any number: a call that a dead client left in the queue makes its actor anew.
        if (m_last != 0 && number != m_last + 1)
        {
            ++g_disorder;
        }
        m_last = number;
        OnStep.Send(number);
        return answerToStep(number, text);
    }

    int Steps() const { return m_last; }

    void Burst(int count)
    {
        for (int i = 1; i <= count; ++i)
        {
            OnBurst.Send(i);
        }
    }

    void Flood(int count, int size)
    {
        Octets const payload(static_cast<std::size_t>(size), 0x5a);
        for (int i = 0; i < count; ++i)
        {
            OnFlood.Send(payload);
        }
        ++g_floods;
    }

    void Identify(int id)
    {
        t_latest = this;
        m_clientId = id;
    }

    void Park() { ParkIn("call"); }

    void ParkIn(char const* stage)
    {
        OnParked.Send(stage);
        CParking::Get().Wait(m_clientId);
    }

    void Hang(std::string way)
    {
        t_hangInNextLine = way == "log line";
        for (; way == "callback send" || way == "log line";)
        {
            OnBurst.Send(0);
        }
        hangOutsideTheLibrary(way);
    }

    nelo_rpc::CCallbackSender<int> OnStep;
    nelo_rpc::CCallbackSender<int> OnBurst;
    nelo_rpc::CCallbackSender<Octets> OnFlood;
    nelo_rpc::CCallbackSender<std::string> OnParked;
    nelo_rpc::CCallbackSender<int> OnTick;

private:
    int m_last = 0;
    int m_clientId = 0;
};

/// Sends OnTick to the steppers that live, from a thread of its own; to no more than some at once, for 100000 actors are
/// one campaign, and callbacks without an end are another.
class CTicker
{
public:
    static CTicker& Get()
    {
        static CTicker& ticker = *new CTicker;
        return ticker;
    }

    void Start(int periodMs)
    {
        m_period = std::chrono::milliseconds(periodMs);
        m_thread = periodMs > 0 ? std::thread([this] { Run(); }) : std::thread();
    }

    void Stop()
    {
        m_stop = true;
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

    // Without a thread there is nothing to enter: a lock that is taken where a kill may come would stay held.

    void Enter(CStepper* stepper)
    {
        if (m_period.count() > 0)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_steppers.size() < MOST)
            {
                m_steppers.insert(stepper);
            }
        }
    }

    void Leave(CStepper* stepper)
    {
        if (m_period.count() > 0)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_steppers.erase(stepper);
        }
    }

private:
    void Run()
    {
        for (int i = 0; !m_stop; ++i)
        {
            {
                std::lock_guard<std::mutex> lock(m_mutex); // none of them is destroyed meanwhile
                for (CStepper* stepper : m_steppers)
                {
                    stepper->OnTick.Send(i);
                }
            }
            std::this_thread::sleep_for(m_period);
        }
    }

    static constexpr std::size_t MOST = 1000;

    std::chrono::milliseconds m_period{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::set<CStepper*> m_steppers;
};

CStepper::CStepper()
{
    ++g_objects;
    CTicker::Get().Enter(this);
}

CStepper::~CStepper()
{
    CTicker::Get().Leave(this);
    t_latest = t_latest == this ? nullptr : t_latest;
    --g_objects;
}

void parkLatestIn(char const* stage)
{
    if (t_latest != nullptr)
    {
        t_latest->ParkIn(stage);
    }
}

void setUp(nelo_rpc::CActor& actor, CStepper& stepper)
{
    actor.AddFunction("Step", stepper, &CStepper::Step);
    actor.AddFunction("Steps", stepper, &CStepper::Steps);
    actor.AddFunction("Echo", [](Octets const& bytes) { return bytes; });
    actor.AddFunction("Bytes", [](int size) { return Octets(static_cast<std::size_t>(size), 0x5a); });
    actor.AddFunction("Burst", stepper, &CStepper::Burst);
    actor.AddFunction("Flood", stepper, &CStepper::Flood);
    actor.AddFunction("Identify", stepper, &CStepper::Identify);
    actor.AddFunction("Park", stepper, &CStepper::Park);
    actor.AddFunction("Hang", stepper, &CStepper::Hang);
    actor.AddCallback("OnStep", stepper.OnStep);
    actor.AddCallback("OnBurst", stepper.OnBurst);
    actor.AddCallback("OnFlood", stepper.OnFlood);
    actor.AddCallback("OnParked", stepper.OnParked);
    actor.AddCallback("OnTick", stepper.OnTick);
}

void registerTypes(nelo_rpc::CRpcHost& host)
{
    host.RegisterActorType<CStepper>(STEPPER, &setUp);
    host.RegisterActorType<CStepper>(SLOW_TO_MAKE, &setUp, [] {
        parkLatestIn("construction");
        return std::make_unique<CStepper>();
    });

    nelo_rpc::SActorType slowToEnd;
    slowToEnd.create = []() -> void* { return new CStepper; };
    slowToEnd.setup = [](nelo_rpc::CActor& actor) { setUp(actor, *static_cast<CStepper*>(actor.GetObject())); };
    slowToEnd.destroy = [](void* object) {
        parkLatestIn("destruction");
        delete static_cast<CStepper*>(object);
    };
    host.RegisterActorType(SLOW_TO_END, slowToEnd);

    nelo_rpc::SActorType hangsAtEnd = slowToEnd;
    hangsAtEnd.destroy = [](void*) { hangOutsideTheLibrary("sleep"); };
    host.RegisterActorType(HANGS_AT_END, hangsAtEnd);
}

/// Long enough for the watchdog to give a worker up that is inside.
void hangInThisLineIfAsked()
{
    if (t_hangInNextLine)
    {
        t_hangInNextLine = false;
        std::this_thread::sleep_for(std::chrono::seconds(6));
    }
}

void installSink()
{
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel level, std::string const& line) {
        noteKill(line);
        if (level == nelo_rpc::log::ELevel::Fatal)
        {
            say("fatal " + line);
        }
        hangInThisLineIfAsked();
    });
}

class COptions
{
public:
    COptions(int argc, char** argv)
    {
        for (int i = 2; i < argc; ++i)
        {
            std::string const option = argv[i];
            auto const sign = option.find('=');
            m_numbers[option.substr(0, sign)] = std::atoi(option.c_str() + sign + 1);
        }
    }

    int Get(std::string const& name, int otherwise = 0) const
    {
        auto const number = m_numbers.find(name);
        return number != m_numbers.end() ? number->second : otherwise;
    }

private:
    std::map<std::string, int> m_numbers;
};

void release(std::istringstream& words)
{
    int id = 0;
    if (words >> id)
    {
        CParking::Get().Release(id);
    }
    else
    {
        CParking::Get().ReleaseAll();
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        return 2;
    }
    COptions const options(argc, argv);
    nelo_rpc::log::SetThreshold(options.Get("debug") != 0 ? nelo_rpc::log::ELevel::Debug
                                                          : nelo_rpc::log::ELevel::Error);
    installSink();
    bool const trusted = options.Get("trusted") != 0;
    nelo_rpc::CDbusPort port(argv[1], true, stressPortOptions(trusted));
    nelo_rpc::SHostOptions hostOptions = stressHostOptions(
        trusted, options.Get("deferred") != 0 ? nelo_rpc::EKill::AtCancellationPoint : nelo_rpc::EKill::Anywhere);
    hostOptions.hangLimitMs = options.Get("hang", hostOptions.hangLimitMs);
    hostOptions.hangCheckMs = options.Get("check", hostOptions.hangCheckMs);
    CTicker::Get().Start(options.Get("tick"));
    auto host = std::make_unique<nelo_rpc::CRpcHost>(port, hostOptions, &registerTypes);
    say("ready");

    for (std::string line; std::getline(std::cin, line) && line != "stop";)
    {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "objects")
        {
            say("objects " + std::to_string(g_objects));
        }
        else if (command == "disorder")
        {
            say("disorder " + std::to_string(g_disorder));
        }
        else if (command == "floods")
        {
            say("floods " + std::to_string(g_floods));
        }
        else if (command == "release")
        {
            release(words);
        }
        else if (command == "drop")
        {
            host.reset();
            say("dropped");
        }
        else if (command == "host")
        {
            host = std::make_unique<nelo_rpc::CRpcHost>(port, hostOptions, &registerTypes);
            say("ready");
        }
        else if (command == "exit")
        {
            std::exit(0);
        }
    }

    CTicker::Get().Stop();
    host.reset();
    return 0;
}
