#pragma once

#include "CFakePort.h"
#include "CGate.h"
#include "CHang.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// An application object as a server has it, with one typed callback.
class CThing
{
public:
    explicit CThing(int serial) : m_serial(serial) {}

    /// Which of all things of the process's server this one is: 1, 2, ...
    int GetSerial() const { return m_serial; }
    int Add(int amount) { return m_value += amount; }

    nelo_rpc::CCallbackSender<int> OnChanged;

private:
    int const m_serial;
    int m_value = 0;
};

/// A host on a fake port, with an actor type "Thing" whose objects are counted, and a second type "Other" without
/// callbacks. The functions of a thing:
///
/// - "Serial" answers GetSerial(), "Add" adds to a value that starts at 0 and answers it;
/// - "Change" sends OnChanged with its argument and answers true;
/// - "Block" opens `blocked` and waits for `release`; "Hang" enters `hang`;
/// - "Run" runs `run`, if set.
///
/// Every one of them records "run <function>" at the port when it starts.
class CThingServer
{
public:
    explicit CThingServer(nelo_rpc::SHostOptions const& options = {})
    {
        host.emplace(port, options, [this](nelo_rpc::CRpcHost& newHost) { Register(newHost); });
    }

    ~CThingServer()
    {
        release.Open();
        host.reset();
    }

    /// Limits for tests that let a call hang: long enough for a busy machine to answer the others.
    static nelo_rpc::SHostOptions ShortLimits()
    {
        nelo_rpc::SHostOptions options;
        options.hangLimitMs = 2500;
        options.hangCheckMs = 500;
        return options;
    }

    // As a client.

    std::shared_ptr<CFakePort::CReply> Call(int connectionId, int actorId, std::string const& function)
    {
        return port.Call(callOf(actorId, "Thing", function), connectionId);
    }

    std::shared_ptr<CFakePort::CReply> Call(int connectionId, int actorId, std::string const& function, int argument)
    {
        return port.Call(callOf(actorId, "Thing", function, argument), connectionId);
    }

    /// The text of the answer; "no answer" when none came.
    static std::string TextOf(CFakePort::CReply const& reply)
    {
        auto const answer = reply.Wait();
        return answer ? nelo_rpc::types::toString(*answer) : "no answer";
    }

    /// Makes an actor and returns its id.
    int Ctor(int connectionId, std::string const& typeName = "Thing")
    {
        auto const answer = port.Call(callOf(0, "CClientConnection", "ctor", typeName), connectionId)->Wait();
        if (!answer || answer->count(0) == 0)
        {
            ADD_FAILURE() << "ctor was not answered";
            return -1;
        }
        return nelo_rpc::types::unpackAt<int>(*answer, 0);
    }

    /// Destroys an actor; the text of the answer.
    std::string Dtor(int connectionId, int actorId)
    {
        return TextOf(*port.Call(callOf(0, "CClientConnection", "dtor", actorId), connectionId));
    }

    // As the application.

    /// The actor whose setup ran last.
    nelo_rpc::CActor* LastActor() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_lastActor;
    }

    /// The thing that was made last, or null when it was destroyed.
    CThing* LastThing() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_made == 0 ? nullptr : m_things.at(m_made).get();
    }

    int MadeCount() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_made;
    }

    /// Serials of the things that were destroyed by the library, in that order.
    std::vector<int> Destroyed() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_destroyed;
    }

    /// Kernel ids of the threads that did so.
    std::vector<int> DestroyedOn() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_destroyedOn;
    }

    /// What happens while a thing is destroyed, on the destroying thread. Set it before there are things.
    std::function<void(CThing&)> onDestroy;

    /// What "Run" does. Set it before the call.
    std::function<void(CThing&)> run;

    /// More to do in the setup of a thing. Set it before there are things.
    std::function<void(nelo_rpc::CActor&)> onSetup;

    CGate blocked;
    CGate release;
    CHang hang;

private:
    void Register(nelo_rpc::CRpcHost& newHost)
    {
        nelo_rpc::SActorType thing;
        thing.create = [this] { return static_cast<void*>(Make()); };
        thing.destroy = [this](void* object) { Destroy(static_cast<CThing*>(object)); };
        thing.setup = [this](nelo_rpc::CActor& actor) { SetUp(actor, *static_cast<CThing*>(actor.GetObject())); };
        newHost.RegisterActorType("Thing", std::move(thing));
        newHost.RegisterActorType<int>("Other", [](nelo_rpc::CActor&, int&) {});
    }

    void SetUp(nelo_rpc::CActor& actor, CThing& thing)
    {
        auto const record = [this](std::string const& function) { port.Record("run " + function); };
        actor.AddFunction("Serial", [record, &thing] {
            record("Serial");
            return thing.GetSerial();
        });
        actor.AddFunction("Add", [record, &thing](int amount) {
            record("Add");
            return thing.Add(amount);
        });
        actor.AddFunction("Change", [record, &thing](int value) {
            record("Change");
            thing.OnChanged.Send(value);
        });
        actor.AddFunction("Block", [record, this] {
            record("Block");
            blocked.Open();
            release.Wait();
        });
        actor.AddFunction("Hang", [record, this] {
            record("Hang");
            hang.Enter();
        });
        actor.AddFunction("Run", [record, this, &thing] {
            record("Run");
            auto const doIt = run; // a killed call may still be in it when the test sets the next one
            if (doIt)
            {
                doIt(thing);
            }
        });
        actor.AddCallback("OnChanged", thing.OnChanged);
        if (onSetup)
        {
            onSetup(actor);
        }
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_lastActor = &actor;
    }

    CThing* Make()
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        ++m_made;
        return (m_things[m_made] = std::make_unique<CThing>(m_made)).get();
    }

    void Destroy(CThing* thing)
    {
        if (onDestroy)
        {
            onDestroy(*thing);
        }
        std::unique_ptr<CThing> doomed; // destroyed unlocked: its callback sender logs
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_destroyed.push_back(thing->GetSerial());
        m_destroyedOn.push_back(static_cast<int>(::syscall(SYS_gettid)));
        doomed = std::move(m_things.at(thing->GetSerial()));
        EXPECT_TRUE(doomed) << "a thing was destroyed twice";
    }

    mutable std::mutex m_mutex;
    std::map<int, std::unique_ptr<CThing>> m_things; // keeps those that the library leaves behind after a kill
    std::vector<int> m_destroyed;
    std::vector<int> m_destroyedOn;
    int m_made = 0;
    nelo_rpc::CActor* m_lastActor = nullptr;

public:
    // Below what they use: destroyed first.
    CFakePort port;
    std::optional<nelo_rpc::CRpcHost> host;
};
