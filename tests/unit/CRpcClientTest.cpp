#include "CFakePort.h"
#include "CGate.h"
#include "CLogCapture.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

std::vector<int> keysOf(types::CValueList const& list)
{
    std::vector<int> keys;
    for (auto const& entry : list)
    {
        keys.push_back(entry.first);
    }
    return keys;
}
} // namespace

// Construction and destruction

TEST(CRpcClient, ConstructionSubscribesTheConnectionProxyAndSendsNothing)
{
    CFakePort port;
    CLogCapture log;

    CRpcClient client(port);

    EXPECT_EQ(Lines{"CRpcClient::SubscribeCallbacks actorId = 0"}, log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    EXPECT_TRUE(port.Calls().empty());
    EXPECT_TRUE(port.ConnectedQueries().empty());
    EXPECT_TRUE(port.TimeoutsMs().empty());
}

TEST(CRpcClient, ConstructionReplacesThePortsCallbackListenerAndLeavesTheCallListenerAlone)
{
    CFakePort port;
    int before = 0;
    int calls = 0;
    port.SetCallbackListener([&](auto const&) { ++before; });
    port.SetFunctionCallListener([&](auto const&, int, auto const&) { ++calls; });
    CRpcClient client(port);
    int handled = 0;
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) { ++handled; });

    port.Callback(callbackOf(5, "OnChanged"));
    port.Call(callOf(5, "Type", "Open"), 0);

    EXPECT_EQ(0, before);
    EXPECT_EQ(1, handled);
    EXPECT_EQ(1, calls);
}

TEST(CRpcClient, DestructionSendsNothingAndLogsTheConnectionProxyFirst)
{
    CFakePort port;
    CLogCapture log;
    {
        CRpcClient const client(port);
        log.Clear();
    }
    EXPECT_EQ((Lines{"CActorProxy::~CActorProxy actorId=0", "CRpcClient::UnsubscribeCallbacks actorId = 0",
                     "CRpcClient::~CRpcClient done"}),
              log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    EXPECT_TRUE(port.Calls().empty());
}

TEST(CRpcClient, DestructionLeavesThePortsCallbackListenerAsItIs)
{
    CFakePort port;
    int later = 0;
    {
        CRpcClient const client(port);
        port.SetCallbackListener([&](auto const&) { ++later; });
    }
    port.Callback(callbackOf(0, "OnKill"));

    EXPECT_EQ(1, later);
}

TEST(CRpcClient, DestructionDropsTheHandlersThatAreStillSubscribed)
{
    CFakePort port;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    {
        CRpcClient client(port);
        client.SubscribeCallbacks(5, [held](std::string const&, types::CValueList const&) {});
        held.reset();
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(CRpcClient, HasAVirtualDestructor)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CRpcClient>);
}

// Calls

TEST(CRpcClient, ACallGoesToConnectionZeroWithTypeActorAndFunctionSet)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;
    auto const args = listOf(4, std::string("five"));
    types::CValueList answer = listOf(9);
    answer[-7] = types::makeValue<int>(1);
    port.AnswerNext(answer);

    auto const reply = client.CallFunction("Counter", 12, "Add", args);

    EXPECT_EQ(types::toString(answer), types::toString(reply));
    ASSERT_EQ(1U, port.Calls().size());
    EXPECT_EQ(0, port.Calls()[0].connectionId);
    EXPECT_EQ(types::toString(callOf(12, "Counter", "Add", 4, std::string("five"))),
              types::toString(port.Calls()[0].list));
    EXPECT_EQ((Lines{"CRpcClient::CallFunction Counter::Add", "CRpcClient::CallFunction Counter::Add done"}),
              log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    EXPECT_EQ(types::toString(listOf(4, std::string("five"))), types::toString(args));
}

TEST(CRpcClient, ACallLogsItsFirstLineBeforeAndItsSecondAfterThePortsCall)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;
    Lines during;
    port.OnCallFunction([&](types::CValueList const&, int) {
        during = log.Texts();
        return types::CValueList();
    });

    client.CallFunction("Counter", 12, "Add", {});

    EXPECT_EQ(Lines{"CRpcClient::CallFunction Counter::Add"}, during);
}

TEST(CRpcClient, ACallReplacesReservedEntriesOfItsArgumentsAndPassesAllOthersUnchanged)
{
    CFakePort port;
    CRpcClient client(port);
    types::CValueList args = listOf(4);
    args[protocol::TYPE_NAME] = types::makeValue<int>(1);
    args[protocol::CONNECTION_ID] = types::makeValue<int>(77);
    args[protocol::ACTOR_ID] = types::makeValue<std::string>("not an id");
    args[protocol::METHOD_NAME] = types::makeValue<int>(3);
    args[-9] = types::makeValue<int>(9);
    args[100] = types::makeValue<int>(100);

    client.CallFunction("Counter", 12, "Add", args);

    ASSERT_EQ(1U, port.Calls().size());
    auto const sent = port.Calls()[0].list;
    EXPECT_EQ((std::vector<int>{-9, -4, -3, -2, -1, 0, 100}), keysOf(sent));
    EXPECT_EQ("Counter", types::unpackAt<std::string>(sent, protocol::TYPE_NAME));
    EXPECT_EQ(12, types::unpackAt<int>(sent, protocol::ACTOR_ID));
    EXPECT_EQ("Add", types::unpackAt<std::string>(sent, protocol::METHOD_NAME));
    EXPECT_EQ(args.at(protocol::CONNECTION_ID), sent.at(protocol::CONNECTION_ID)); // the same value, shared
    EXPECT_EQ(args.at(-9), sent.at(-9));
    EXPECT_EQ(args.at(100), sent.at(100));
    EXPECT_EQ(args.at(0), sent.at(0));
}

TEST(CRpcClient, ACallSetsNoConnectionId)
{
    CFakePort port;
    CRpcClient client(port);

    client.CallFunction("Counter", 12, "Add", {});

    ASSERT_EQ(1U, port.Calls().size());
    EXPECT_EQ((std::vector<int>{-4, -2, -1}), keysOf(port.Calls()[0].list));
}

TEST(CRpcClient, ACallThatFailsGivesTheEmptyListOfThePort)
{
    CFakePort port;
    CRpcClient client(port);
    EXPECT_TRUE(client.CallFunction("Counter", 12, "Add", listOf(1)).empty());
}

TEST(CRpcClient, SeveralThreadsMayCallAtTheSameTime)
{
    CFakePort port;
    CRpcClient client(port);
    std::atomic<int> inside{0};
    CGate both;
    port.OnCallFunction([&](types::CValueList const& call, int) {
        if (++inside == 2)
        {
            both.Open();
        }
        both.Wait();
        return listOf(types::unpackAt<int>(call, 0));
    });
    std::string first;
    std::string second;
    std::thread other([&] { first = types::toString(client.CallFunction("Counter", 1, "Add", listOf(1))); });
    second = types::toString(client.CallFunction("Counter", 2, "Add", listOf(2)));
    other.join();

    EXPECT_TRUE(both.IsOpen());
    EXPECT_EQ(types::toString(listOf(1)), first);
    EXPECT_EQ(types::toString(listOf(2)), second);
}

TEST(CRpcClient, PassesTimeOutsToThePortUnchanged)
{
    CFakePort port;
    CRpcClient client(port);

    client.SetTimeoutMs(1500);
    client.SetTimeoutMs(0);
    client.SetTimeoutMs(-1);

    EXPECT_EQ((std::vector<int>{1500, 0, -1}), port.TimeoutsMs());
}

TEST(CRpcClient, AsksThePortWhetherConnectionZeroIsThere)
{
    CFakePort port;
    CRpcClient const client(port);

    EXPECT_TRUE(client.IsConnected());
    port.SetConnected(false);
    EXPECT_FALSE(client.IsConnected());

    EXPECT_EQ((std::vector<int>{0, 0}), port.ConnectedQueries());
}

TEST(CRpcClient, ItsConnectionProxyStandsForActorZeroOfTheConnectionsType)
{
    CFakePort port;
    CRpcClient client(port);

    CActorProxy* const proxy = client.GetConnectionProxy();

    ASSERT_NE(nullptr, proxy);
    EXPECT_NE(nullptr, dynamic_cast<CClientConnectionProxy*>(proxy));
    EXPECT_EQ(proxy, client.GetConnectionProxy());
    EXPECT_EQ(0, proxy->GetId());
    EXPECT_EQ(&client, proxy->GetRpcClient());
    proxy->RemoteCall("Anything", {});
    ASSERT_EQ(1U, port.Calls().size());
    EXPECT_EQ(types::toString(callOf(0, "CClientConnection", "Anything")), types::toString(port.Calls()[0].list));
}

// Callbacks

TEST(CRpcClient, ACallbackIsLoggedAndReachesTheHandlerOfItsActorWithNameAndWholeListOnTheCallingThread)
{
    CFakePort port;
    CRpcClient client(port);
    std::string name;
    std::string list;
    std::thread::id ranOn;
    int others = 0;
    client.SubscribeCallbacks(5, [&](std::string const& callback, types::CValueList const& payload) {
        name = callback;
        list = types::toString(payload);
        ranOn = std::this_thread::get_id();
    });
    client.SubscribeCallbacks(6, [&](std::string const&, types::CValueList const&) { ++others; });
    CLogCapture log;
    auto const callback = callbackOf(5, "OnChanged", 3);

    port.Callback(callback);

    EXPECT_EQ("OnChanged", name);
    EXPECT_EQ(types::toString(callback), list);
    EXPECT_EQ(std::this_thread::get_id(), ranOn);
    EXPECT_EQ(0, others);
    EXPECT_EQ(Lines{"CRpcClient::OnCallback = " + types::toString(callback)}, log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST(CRpcClient, ACallbackOfAnActorWithoutAHandlerIsDroppedWithoutALineOfItsOwn)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;
    auto const callback = callbackOf(5, "OnChanged");

    port.Callback(callback);

    EXPECT_EQ(Lines{"CRpcClient::OnCallback = " + types::toString(callback)}, log.Texts());
}

TEST(CRpcClient, CallbacksOfActorZeroReachTheConnectionProxyFromTheStart)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;
    auto const callback = callbackOf(0, "OnKill");

    port.Callback(callback);

    EXPECT_EQ((Lines{"CRpcClient::OnCallback = " + types::toString(callback),
                     "CActorProxy::OnCallback OnKill with args = " + types::toString(callback),
                     "CActorProxy::OnCallback Callback with name = OnKill is not registered"}),
              log.Texts());
}

TEST(CRpcClient, UnsubscribingActorZeroSilencesTheConnectionProxy)
{
    CFakePort port;
    CRpcClient client(port);
    client.UnsubscribeCallbacks(0);
    CLogCapture log;

    port.Callback(callbackOf(0, "OnKill"));

    EXPECT_EQ(1U, log.Texts().size());
}

TEST(CRpcClient, SubscribingLogsTheActorsId)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;

    client.SubscribeCallbacks(-5, [](std::string const&, types::CValueList const&) {});

    EXPECT_EQ(Lines{"CRpcClient::SubscribeCallbacks actorId = -5"}, log.Texts(ELevel::Debug));
}

TEST(CRpcClient, UnsubscribingLogsTheActorsIdAndDropsTheHandler)
{
    CFakePort port;
    CRpcClient client(port);
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    int handled = 0;
    client.SubscribeCallbacks(5, [&handled, held](std::string const&, types::CValueList const&) { ++handled; });
    held.reset();
    CLogCapture log;

    client.UnsubscribeCallbacks(5);

    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(Lines{"CRpcClient::UnsubscribeCallbacks actorId = 5"}, log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    port.Callback(callbackOf(5, "OnChanged"));
    EXPECT_EQ(0, handled);
}

TEST(CRpcClient, UnsubscribingAnIdThatWasNeverSubscribedOnlyLogs)
{
    CFakePort port;
    CRpcClient client(port);
    CLogCapture log;

    client.UnsubscribeCallbacks(99);

    EXPECT_EQ(Lines{"CRpcClient::UnsubscribeCallbacks actorId = 99"}, log.Texts());
}

TEST(CRpcClient, SubscribingTwiceForOneActorKeepsTheSecondHandlerAndDestroysTheFirst)
{
    CFakePort port;
    CRpcClient client(port);
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    int first = 0;
    int second = 0;
    client.SubscribeCallbacks(5, [&first, held](std::string const&, types::CValueList const&) { ++first; });
    held.reset();

    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) { ++second; });
    EXPECT_TRUE(watch.expired());
    port.Callback(callbackOf(5, "OnChanged"));

    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
}

TEST(CRpcClient, AnEmptyHandlerRaisesBadFunctionCallAtWhoeverDelivers)
{
    CFakePort port;
    CRpcClient client(port);
    client.SubscribeCallbacks(5, {});

    EXPECT_THROW(port.Callback(callbackOf(5, "OnChanged")), std::bad_function_call);
}

TEST(CRpcClient, AnExceptionOfAHandlerReachesWhoeverDeliversAndLeavesTheClientUsable)
{
    CFakePort port;
    CRpcClient client(port);
    client.SubscribeCallbacks(
        5, [](std::string const&, types::CValueList const&) { throw std::runtime_error("of the application"); });

    EXPECT_THROW(port.Callback(callbackOf(5, "OnChanged")), std::runtime_error);

    // A handler that counted as running for ever would block this.
    std::thread other([&] { client.UnsubscribeCallbacks(5); });
    other.join();
}

TEST(CRpcClientDeathTest, ACallbackWithoutAnActorIdLogsAndAborts)
{
    CFakePort port;
    CRpcClient client(port);
    auto callback = callbackOf(5, "OnChanged");
    callback.erase(protocol::ACTOR_ID);
    EXPECT_ABORT(port.Callback(callback), "\\[[0-9]+\\] wrong type in CValue");
}

TEST(CRpcClientDeathTest, ACallbackWithoutANameLogsAndAborts)
{
    CFakePort port;
    CRpcClient client(port);
    auto callback = callbackOf(5, "OnChanged");
    callback.erase(protocol::METHOD_NAME);
    EXPECT_ABORT(port.Callback(callback), "\\[[0-9]+\\] wrong type in CValue");
}

TEST(CRpcClientDeathTest, ACallbackWithAnActorIdOfAnotherTypeLogsAndAborts)
{
    CFakePort port;
    CRpcClient client(port);
    auto callback = callbackOf(5, "OnChanged");
    callback[protocol::ACTOR_ID] = types::makeValue<std::string>("5");
    EXPECT_ABORT(port.Callback(callback), "wrong type in CValue");
}

TEST(CRpcClientDeathTest, ACallbackWithANameOfAnotherTypeLogsAndAborts)
{
    CFakePort port;
    CRpcClient client(port);
    auto callback = callbackOf(5, "OnChanged");
    callback[protocol::METHOD_NAME] = types::makeValue<char const*>("OnChanged");
    EXPECT_ABORT(port.Callback(callback), "wrong type in CValue");
}

// Threads

TEST(CRpcClient, UnsubscribingReturnsOnlyWhenTheHandlerIsNotRunningOnAnotherThread)
{
    CFakePort port;
    CRpcClient client(port);
    CGate entered;
    CGate release;
    CGate returned;
    bool returnedEarly = false;
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) {
        entered.Open();
        release.Wait();
        returnedEarly = returned.IsOpen();
    });
    std::thread delivery([&] { port.Callback(callbackOf(5, "OnChanged")); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        client.UnsubscribeCallbacks(5);
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    delivery.join();
    EXPECT_FALSE(returnedEarly);
}

TEST(CRpcClient, UnsubscribingFromInsideTheHandlerReturnsAtOnceAndTheHandlerKeepsItsState)
{
    CFakePort port;
    CRpcClient client(port);
    auto const text = std::make_shared<std::string>("still here");
    std::string seen;
    int handled = 0;
    client.SubscribeCallbacks(5, [&, held = text](std::string const&, types::CValueList const&) {
        client.UnsubscribeCallbacks(5);
        seen = *held;
        ++handled;
    });

    port.Callback(callbackOf(5, "OnChanged"));
    port.Callback(callbackOf(5, "OnChanged"));

    EXPECT_EQ("still here", seen);
    EXPECT_EQ(1, handled);
    EXPECT_EQ(1, text.use_count());
}

TEST(CRpcClient, AHandlerMayReplaceItself)
{
    CFakePort port;
    CRpcClient client(port);
    int first = 0;
    int second = 0;
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) {
        client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) { ++second; });
        ++first;
    });

    port.Callback(callbackOf(5, "OnChanged"));
    port.Callback(callbackOf(5, "OnChanged"));

    EXPECT_EQ(1, first);
    EXPECT_EQ(1, second);
}

TEST(CRpcClient, AHandlerMayUnsubscribeOthersAndSubscribeNewOnes)
{
    CFakePort port;
    CRpcClient client(port);
    int other = 0;
    int added = 0;
    client.SubscribeCallbacks(6, [&](std::string const&, types::CValueList const&) { ++other; });
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) {
        client.UnsubscribeCallbacks(6);
        client.SubscribeCallbacks(7, [&](std::string const&, types::CValueList const&) { ++added; });
    });

    port.Callback(callbackOf(5, "OnChanged"));
    port.Callback(callbackOf(6, "OnChanged"));
    port.Callback(callbackOf(7, "OnChanged"));

    EXPECT_EQ(0, other);
    EXPECT_EQ(1, added);
}

TEST(CRpcClient, AHandlerMayCallTheServer)
{
    CFakePort port;
    CRpcClient client(port);
    port.AnswerNext(listOf(42));
    std::string answer;
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) {
        answer = types::toString(client.CallFunction("Counter", 5, "Get", {}));
    });

    port.Callback(callbackOf(5, "OnChanged"));

    EXPECT_EQ(types::toString(listOf(42)), answer);
}

TEST(CRpcClient, UnsubscribingOneActorDoesNotWaitForTheHandlerOfAnother)
{
    CFakePort port;
    CRpcClient client(port);
    CGate entered;
    CGate release;
    client.SubscribeCallbacks(5, [&](std::string const&, types::CValueList const&) {
        entered.Open();
        release.Wait();
    });
    client.SubscribeCallbacks(6, [](std::string const&, types::CValueList const&) {});
    std::thread delivery([&] { port.Callback(callbackOf(5, "OnChanged")); });
    ASSERT_TRUE(entered.Wait());

    CGate returned;
    std::thread owner([&] {
        client.UnsubscribeCallbacks(6);
        client.SubscribeCallbacks(7, [](std::string const&, types::CValueList const&) {});
        returned.Open();
    });
    EXPECT_TRUE(returned.Wait());
    release.Open();
    owner.join();
    delivery.join();
}

TEST(CRpcClient, SubscriptionsMayComeAndGoWhileCallbacksArrive)
{
    CFakePort port;
    CRpcClient client(port);
    std::atomic<bool> stop{false};
    std::thread delivery([&] {
        for (int callback = 0; !stop; ++callback)
        {
            port.Callback(callbackOf(1 + callback % 3, "OnChanged", callback));
        }
    });
    std::atomic<int> late{0};
    std::vector<std::thread> owners;
    for (int owner = 1; owner <= 2; ++owner)
    {
        owners.emplace_back([&, owner] {
            for (int round = 0; round < 50; ++round)
            {
                struct SUsed
                {
                    CGate reached;
                    int seen = 0; // plain: that the removal waits is what makes reading it right
                    std::atomic<bool> removed{false};
                };
                auto const used = std::make_unique<SUsed>();
                client.SubscribeCallbacks(owner,
                                          [&late, used = used.get()](std::string const&, types::CValueList const&) {
                                              late += used->removed ? 1 : 0;
                                              ++used->seen;
                                              used->reached.Open();
                                          });
                EXPECT_TRUE(used->reached.Wait());
                client.UnsubscribeCallbacks(owner);
                used->removed = true;
                EXPECT_LE(1, used->seen);
            }
        });
    }
    for (auto& owner : owners)
    {
        owner.join();
    }
    stop = true;
    delivery.join();

    EXPECT_EQ(0, late);
}
