#include "CFakePort.h"
#include "CLogCapture.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

constexpr int CONNECTION = 3;

/// A callback that only notes what an actor tells it.
class CRecordingCallback : public ICallback
{
public:
    void AddActor(CActor* actor, std::string const& name) override
    {
        m_told.push_back("add " + std::to_string(actor->GetId()) + " " + name);
    }

    void RemoveActor(CActor* actor) override { m_told.push_back("remove " + std::to_string(actor->GetId())); }

    Lines const& Told() const { return m_told; }

private:
    Lines m_told;
};

/// An object as an application has it.
class CCounter
{
public:
    int Add(int amount) { return m_value += amount; }
    std::string Describe(std::string const& unit, int factor) const
    {
        return std::to_string(m_value * factor) + " " + unit;
    }
    void Reset() { m_value = 0; }
    bool IsAbove(int limit) const { return m_value > limit; }

private:
    int m_value = 0;
};

int twice(int number)
{
    return 2 * number;
}
} // namespace

class CActorOnConnection : public ::testing::Test
{
protected:
    CFakePort m_port;
    CRpcHost m_host{m_port};
    CClientConnection& m_connection = m_host.GetOrCreateClientConnection(CONNECTION);
};

TEST_F(CActorOnConnection, KnowsItsIdItsTypeAndItsObject)
{
    int object = 0;
    CActor const actor(m_connection, 12, "Counter", &object);

    EXPECT_EQ(12, actor.GetId());
    EXPECT_EQ("Counter", actor.GetTypeName());
    EXPECT_EQ(&object, actor.GetObject());
    EXPECT_TRUE(std::has_virtual_destructor_v<CActor>);
}

// Functions

TEST_F(CActorOnConnection, HasTheFunctionsThatWereAddedAndNoOthers)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    EXPECT_FALSE(actor.HasFunction("Twice"));

    actor.AddFunction("Twice", &twice);

    EXPECT_TRUE(actor.HasFunction("Twice"));
    EXPECT_FALSE(actor.HasFunction("twice"));
    EXPECT_FALSE(actor.HasFunction(""));
}

TEST_F(CActorOnConnection, ACallLogsItsNameAndGivesTheWholeListToTheFunctionAndItsResultBack)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    std::string seen;
    actor.AddFunction("Echo", ValueListFunction([&](types::CValueList const& args) {
                          seen = types::toString(args);
                          types::CValueList result = listOf(1);
                          result[-7] = types::makeValue<int>(5);
                          return result;
                      }));
    CLogCapture log;

    auto const call = callOf(12, "Counter", "Echo", 4, std::string("five"));
    auto const result = actor.CallFunction("Echo", call);

    EXPECT_EQ(types::toString(call), seen);
    EXPECT_EQ("{-7 = (CTypedValue<int> = 5) | 0 = (CTypedValue<int> = 1) | }", types::toString(result));
    EXPECT_EQ(Lines{"CallFunction Echo"}, ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CActorOnConnection, ACallOfAnUnknownFunctionLogsAnErrorAndGivesAnEmptyList)
{
    CActor const actor(m_connection, 12, "Counter", nullptr);
    CLogCapture log;

    EXPECT_TRUE(actor.CallFunction("Open", callOf(12, "Counter", "Open")).empty());

    EXPECT_EQ((Lines{"CallFunction Open", "Open should exist in list"}), ownLines(log));
    EXPECT_EQ(Lines{"Open should exist in list"}, log.Texts(ELevel::Error));
}

TEST_F(CActorOnConnection, AnExceptionOfAFunctionPassesThrough)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Throw", []() -> int { throw std::runtime_error("of the application"); });

    EXPECT_THROW(actor.CallFunction("Throw", {}), std::runtime_error);
}

TEST_F(CActorOnConnection, TypedFunctionsTakeTheirArgumentsFromZeroOneTwoAndAnswerAtZero)
{
    CCounter counter;
    CCounter const& constCounter = counter;
    CActor actor(m_connection, 12, "Counter", &counter);
    actor.AddFunction("Add", counter, &CCounter::Add);
    actor.AddFunction("Describe", counter, &CCounter::Describe);
    actor.AddFunction("IsAbove", constCounter, &CCounter::IsAbove);
    actor.AddFunction("Reset", counter, &CCounter::Reset);
    actor.AddFunction("Sum", [](int a, int b, int c) { return a + b + c; });
    actor.AddFunction("Join", std::function<std::string(std::string, std::string)>(
                                  [](std::string const& a, std::string const& b) { return a + b; }));
    actor.AddFunction("Twice", &twice);

    EXPECT_EQ(types::toString(listOf(5)), types::toString(actor.CallFunction("Add", listOf(5))));
    EXPECT_EQ(types::toString(listOf(std::string("50 cm"))),
              types::toString(actor.CallFunction("Describe", listOf(std::string("cm"), 10))));
    EXPECT_EQ(types::toString(listOf(true)), types::toString(actor.CallFunction("IsAbove", listOf(4))));
    EXPECT_EQ(types::toString(listOf(6)), types::toString(actor.CallFunction("Sum", listOf(1, 2, 3))));
    EXPECT_EQ(types::toString(listOf(std::string("ab"))),
              types::toString(actor.CallFunction("Join", listOf(std::string("a"), std::string("b")))));
    EXPECT_EQ(types::toString(listOf(14)), types::toString(actor.CallFunction("Twice", listOf(7))));
    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", types::toString(actor.CallFunction("Reset", {})));
    EXPECT_EQ(types::toString(listOf(0)), types::toString(actor.CallFunction("Add", listOf(0))));
}

TEST_F(CActorOnConnection, ATypedFunctionIgnoresTheReservedEntriesAndCopiesNoneIntoTheResult)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Twice", &twice);

    EXPECT_EQ(types::toString(listOf(6)),
              types::toString(actor.CallFunction("Twice", callOf(12, "Counter", "Twice", 3))));
}

TEST_F(CActorOnConnection, AFunctionThatIsAddedAgainReplacesTheEarlierOne)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Get", [] { return 1; });
    actor.AddFunction("Get", [] { return 2; });

    EXPECT_EQ(types::toString(listOf(2)), types::toString(actor.CallFunction("Get", {})));
}

TEST_F(CActorOnConnection, ACallHoldsItsFunctionThoughTheActorIsDeletedMeanwhile)
{
    auto actor = std::make_unique<CActor>(m_connection, 12, "Counter", nullptr);
    actor->AddFunction("Leave", [&actor, held = std::make_shared<std::string>("held by the function")] {
        actor.reset();
        return *held;
    });

    CActor const* const raw = actor.get();
    auto const result = raw->CallFunction("Leave", {});

    EXPECT_FALSE(actor);
    EXPECT_EQ(types::toString(listOf(std::string("held by the function"))), types::toString(result));
}

TEST_F(CActorOnConnection, AFunctionMayAddAndReplaceFunctionsOfItsActor)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Grow", [&actor, held = std::make_shared<int>(1)] {
        actor.AddFunction("Added", [] { return 3; });
        actor.AddFunction("Grow", [] { return 2; });
        return *held;
    });

    EXPECT_EQ(types::toString(listOf(1)), types::toString(actor.CallFunction("Grow", {})));
    EXPECT_EQ(types::toString(listOf(2)), types::toString(actor.CallFunction("Grow", {})));
    EXPECT_EQ(types::toString(listOf(3)), types::toString(actor.CallFunction("Added", {})));
}

TEST_F(CActorOnConnection, FindsTheArgumentThatATypedFunctionCannotTake)
{
    CCounter counter;
    CActor actor(m_connection, 12, "Counter", &counter);
    actor.AddFunction("Twice", &twice);
    actor.AddFunction("Sum", [](int a, int b) { return a + b; });
    actor.AddFunction("Add", counter, &CCounter::Add);
    actor.AddFunction("Describe", counter, &CCounter::Describe);
    auto const text = std::string("text");

    for (auto const* const name : {"Twice", "Add"})
    {
        EXPECT_EQ(-1, actor.FindUnfitArgument(name, listOf(3))) << name;
        EXPECT_EQ(0, actor.FindUnfitArgument(name, listOf(text))) << name;
        EXPECT_EQ(0, actor.FindUnfitArgument(name, {})) << name;
    }
    EXPECT_EQ(1, actor.FindUnfitArgument("Sum", listOf(3)));
    EXPECT_EQ(-1, actor.FindUnfitArgument("Describe", listOf(text, 3)));
    EXPECT_EQ(1, actor.FindUnfitArgument("Describe", listOf(text, text)));
}

TEST_F(CActorOnConnection, FindsNoUnfitArgumentWhereNothingIsSaidAboutThem)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Twice", &twice);
    actor.AddFunction("Twice", [](types::CValueList const& call) { return call; });

    EXPECT_EQ(-1, actor.FindUnfitArgument("Twice", {}));
    EXPECT_EQ(-1, actor.FindUnfitArgument("Nope", {}));
}

using CActorOnConnectionDeathTest = CActorOnConnection;

TEST_F(CActorOnConnectionDeathTest, AnArgumentOfTheWrongTypeLogsAndAborts)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Twice", &twice);
    EXPECT_ABORT(actor.CallFunction("Twice", listOf(std::string("3"))), "wrong type in CValue");
}

TEST_F(CActorOnConnectionDeathTest, AMissingArgumentLogsAndAborts)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Sum", [](int a, int b) { return a + b; });
    EXPECT_ABORT(actor.CallFunction("Sum", listOf(3)), "wrong type in CValue");
}

// Callbacks

TEST_F(CActorOnConnection, IsRegisteredUnderOnRecreateFromBirth)
{
    CLogCapture log;
    CActor actor(m_connection, 12, "Counter", nullptr);
    EXPECT_EQ(Lines{"CCallbackSender(" + textOf(&actor.GetRecreateSender()) + ")::AddActor 12"}, ownLines(log));

    actor.GetRecreateSender().Send();

    ASSERT_EQ(1U, m_port.Callbacks().size());
    EXPECT_EQ(CONNECTION, m_port.Callbacks()[0].connectionId);
    EXPECT_EQ(types::toString(callbackOf(12, "OnRecreate")), types::toString(m_port.Callbacks()[0].list));
}

TEST_F(CActorOnConnection, AddingACallbackTellsItTheActorAndTheName)
{
    CRecordingCallback callback;
    CActor actor(m_connection, 12, "Counter", nullptr);

    actor.AddCallback("OnChanged", callback);

    EXPECT_EQ(Lines{"add 12 OnChanged"}, callback.Told());
}

TEST_F(CActorOnConnection, RemovingACallbackTellsItOnceAndCleaningUpDoesNotTellItAgain)
{
    CRecordingCallback callback;
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddCallback("OnChanged", callback);

    actor.RemoveCallback(callback);
    actor.CleanCallbacks();

    EXPECT_EQ((Lines{"add 12 OnChanged", "remove 12"}), callback.Told());
}

TEST_F(CActorOnConnection, ACallbackThatWasAddedTwiceIsKeptOnce)
{
    CRecordingCallback callback;
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddCallback("OnOld", callback);
    actor.AddCallback("OnNew", callback);

    actor.CleanCallbacks();

    EXPECT_EQ((Lines{"add 12 OnOld", "add 12 OnNew", "remove 12"}), callback.Told());
}

TEST_F(CActorOnConnection, CleaningUpLogsAndTellsEveryCallbackOnce)
{
    CRecordingCallback first;
    CRecordingCallback second;
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddCallback("OnFirst", first);
    actor.AddCallback("OnSecond", second);
    CLogCapture log;

    actor.CleanCallbacks();

    EXPECT_EQ((Lines{"add 12 OnFirst", "remove 12"}), first.Told());
    EXPECT_EQ((Lines{"add 12 OnSecond", "remove 12"}), second.Told());
    std::string const line = "CActor::~CActor removing self from callback ";
    EXPECT_EQ(3, log.Count(line)); // the two, and the recreate sender
    EXPECT_EQ(1, log.Count(line + textOf(static_cast<ICallback*>(&first))));
    EXPECT_EQ(1, log.Count(line + textOf(static_cast<ICallback*>(&second))));
    EXPECT_EQ(1, log.Count(line + textOf(static_cast<ICallback*>(&actor.GetRecreateSender()))));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CActorOnConnection, CleaningUpTakesTheActorOffItsRecreateSender)
{
    CActor actor(m_connection, 12, "Counter", nullptr);

    actor.CleanCallbacks();
    actor.GetRecreateSender().Send();

    EXPECT_TRUE(m_port.Callbacks().empty());
}

TEST_F(CActorOnConnection, CleaningUpWithoutCallbacksChangesNothing)
{
    CActor actor(m_connection, 12, "Counter", nullptr);
    actor.AddFunction("Twice", &twice);
    actor.CleanCallbacks();
    CLogCapture log;

    actor.CleanCallbacks();

    EXPECT_EQ(Lines(), ownLines(log));
    EXPECT_TRUE(actor.HasFunction("Twice"));
    EXPECT_EQ(12, actor.GetId());
}

TEST_F(CActorOnConnection, ACallbackGoesToTheConnectionsPeerAndTellsWhetherItWasSent)
{
    CActor const actor(m_connection, 12, "Counter", nullptr);
    CLogCapture log;

    EXPECT_TRUE(actor.SendCallback("OnChanged", listOf(4)));

    ASSERT_EQ(1U, m_port.Callbacks().size());
    EXPECT_EQ(CONNECTION, m_port.Callbacks()[0].connectionId);
    EXPECT_EQ(types::toString(callbackOf(12, "OnChanged", 4)), types::toString(m_port.Callbacks()[0].list));
    ASSERT_FALSE(ownLines(log).empty());
    EXPECT_EQ("CActor(12)::SendCallback", ownLines(log).front());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));

    m_port.SetSendResult(false);
    EXPECT_FALSE(actor.SendCallback("OnChanged", listOf(5)));
}

TEST_F(CActorOnConnection, ItsDestructorLogsItAndTellsItsCallbacksNothing)
{
    CRecordingCallback callback;
    CLogCapture log;
    auto actor = std::make_unique<CActor>(m_connection, 12, "Counter", nullptr);
    actor->AddCallback("OnChanged", callback);
    std::string const address = textOf(actor.get());
    std::string const sender = textOf(&actor->GetRecreateSender());
    log.Clear();

    actor.reset();

    EXPECT_EQ((Lines{"CActor::~CActor actor=" + address + " id=12", "CCallbackSender::~CCallbackSender for " + sender}),
              ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    EXPECT_EQ(Lines{"add 12 OnChanged"}, callback.Told());
}
