#include "CFakePort.h"
#include "CGate.h"
#include "CLogCapture.h"
#include "VirtualSlot.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <atomic>
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

/// Something a listener holds, to see when the listener is destroyed.
std::shared_ptr<int> token()
{
    return std::make_shared<int>(0);
}
} // namespace

TEST(CRpcPort, CallWithoutAListenerLogsOneErrorLineAndIsNeverAnswered)
{
    CFakePort port;
    CLogCapture log;

    auto const reply = port.Call(callOf(1, "Type", "Open"), 4);

    EXPECT_EQ(Lines{"Function Listener is empty"}, log.Texts());
    EXPECT_EQ(Lines{"Function Listener is empty"}, log.Texts(ELevel::Error));
    EXPECT_EQ(0, reply->Count());
}

TEST(CRpcPort, CallbackWithoutAListenerLogsOneErrorLine)
{
    CFakePort port;
    CLogCapture log;

    port.Callback(callbackOf(1, "OnOpened"));

    EXPECT_EQ(Lines{"Callback Listener is empty"}, log.Texts());
    EXPECT_EQ(Lines{"Callback Listener is empty"}, log.Texts(ELevel::Error));
}

TEST(CRpcPort, HandsACallToTheListenerOnTheCallingThreadWithListConnectionIdAndReply)
{
    CFakePort port;
    CLogCapture log;
    std::string seen;
    int seenConnection = -1;
    std::thread::id seenThread;
    port.SetFunctionCallListener([&](types::CValueList const& call, int connectionId, CRpcPort::ReplyFunction reply) {
        seen = types::toString(call);
        seenConnection = connectionId;
        seenThread = std::this_thread::get_id();
        reply(listOf(42));
    });

    auto const call = callOf(1, "Type", "Open", 7);
    auto const reply = port.Call(call, 4);

    EXPECT_EQ(types::toString(call), seen);
    EXPECT_EQ(4, seenConnection);
    EXPECT_EQ(std::this_thread::get_id(), seenThread);
    ASSERT_EQ(1, reply->Count());
    EXPECT_EQ(types::toString(listOf(42)), types::toString(*reply->Wait()));
    EXPECT_TRUE(log.Texts().empty());
}

TEST(CRpcPort, HandsACallbackToTheListenerOnTheCallingThread)
{
    CFakePort port;
    CLogCapture log;
    std::string seen;
    std::thread::id seenThread;
    port.SetCallbackListener([&](types::CValueList const& callback) {
        seen = types::toString(callback);
        seenThread = std::this_thread::get_id();
    });

    auto const callback = callbackOf(3, "OnOpened", std::string("door"));
    port.Callback(callback);

    EXPECT_EQ(types::toString(callback), seen);
    EXPECT_EQ(std::this_thread::get_id(), seenThread);
    EXPECT_TRUE(log.Texts().empty());
}

TEST(CRpcPort, EachListenerReceivesOnlyItsOwnKindOfMessage)
{
    CFakePort port;
    int calls = 0;
    int callbacks = 0;
    port.SetFunctionCallListener([&](auto const&, int, auto const&) { ++calls; });
    port.SetCallbackListener([&](auto const&) { ++callbacks; });

    port.Call(callOf(1, "Type", "Open"), 0);
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, callbacks);

    port.Callback(callbackOf(1, "OnOpened"));
    EXPECT_EQ(1, calls);
    EXPECT_EQ(1, callbacks);
}

TEST(CRpcPort, AReplyFunctionKeptByTheListenerAnswersLater)
{
    CFakePort port;
    CRpcPort::ReplyFunction kept;
    port.SetFunctionCallListener([&](auto const&, int, CRpcPort::ReplyFunction reply) { kept = std::move(reply); });

    auto const reply = port.Call(callOf(1, "Type", "Open"), 0);
    EXPECT_EQ(0, reply->Count());
    kept(listOf(1));

    EXPECT_EQ(1, reply->Count());
}

TEST(CRpcPort, SettingTheCallListenerAgainDestroysTheFirstAndNeverCallsItAgain)
{
    CFakePort port;
    int first = 0;
    int second = 0;
    auto held = token();
    std::weak_ptr<int> const watch = held;
    port.SetFunctionCallListener([&, held](auto const&, int, auto const&) { ++first; });
    held.reset();
    ASSERT_FALSE(watch.expired());

    port.SetFunctionCallListener([&](auto const&, int, auto const&) { ++second; });
    EXPECT_TRUE(watch.expired());

    port.Call(callOf(1, "Type", "Open"), 0);
    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
}

TEST(CRpcPort, SettingTheCallbackListenerAgainDestroysTheFirstAndNeverCallsItAgain)
{
    CFakePort port;
    int first = 0;
    int second = 0;
    auto held = token();
    std::weak_ptr<int> const watch = held;
    port.SetCallbackListener([&, held](auto const&) { ++first; });
    held.reset();
    ASSERT_FALSE(watch.expired());

    port.SetCallbackListener([&](auto const&) { ++second; });
    EXPECT_TRUE(watch.expired());

    port.Callback(callbackOf(1, "OnOpened"));
    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
}

TEST(CRpcPort, SettingAnEmptyCallListenerIsAsIfNoneHadBeenSet)
{
    CFakePort port;
    int calls = 0;
    port.SetFunctionCallListener([&](auto const&, int, auto const&) { ++calls; });
    port.SetFunctionCallListener({});
    CLogCapture log;

    auto const reply = port.Call(callOf(1, "Type", "Open"), 0);

    EXPECT_EQ(0, calls);
    EXPECT_EQ(0, reply->Count());
    EXPECT_EQ(Lines{"Function Listener is empty"}, log.Texts(ELevel::Error));
}

TEST(CRpcPort, SettingAnEmptyCallbackListenerIsAsIfNoneHadBeenSet)
{
    CFakePort port;
    int callbacks = 0;
    port.SetCallbackListener([&](auto const&) { ++callbacks; });
    port.SetCallbackListener({});
    CLogCapture log;

    port.Callback(callbackOf(1, "OnOpened"));

    EXPECT_EQ(0, callbacks);
    EXPECT_EQ(Lines{"Callback Listener is empty"}, log.Texts(ELevel::Error));
}

TEST(CRpcPort, DestroysItsListenersWithItself)
{
    auto call = token();
    auto callback = token();
    std::weak_ptr<int> const watchCall = call;
    std::weak_ptr<int> const watchCallback = callback;
    {
        CFakePort port;
        port.SetFunctionCallListener([call](auto const&, int, auto const&) {});
        port.SetCallbackListener([callback](auto const&) {});
        call.reset();
        callback.reset();
        EXPECT_FALSE(watchCall.expired());
        EXPECT_FALSE(watchCallback.expired());
    }
    EXPECT_TRUE(watchCall.expired());
    EXPECT_TRUE(watchCallback.expired());
}

TEST(CRpcPort, AnExceptionOfAListenerReachesWhoeverDeliversAndLeavesThePortUsable)
{
    CFakePort port;
    port.SetFunctionCallListener([](auto const&, int, auto const&) { throw std::runtime_error("call"); });
    port.SetCallbackListener([](auto const&) { throw std::runtime_error("callback"); });

    EXPECT_THROW(port.Call(callOf(1, "Type", "Open"), 0), std::runtime_error);
    EXPECT_THROW(port.Callback(callbackOf(1, "OnOpened")), std::runtime_error);

    // A listener that counted as running for ever would block these.
    std::thread other([&] {
        port.SetFunctionCallListener({});
        port.SetCallbackListener({});
    });
    other.join();
}

TEST(CRpcPort, ReplacingTheCallListenerReturnsOnlyWhenTheOldOneIsNotRunningOnAnotherThread)
{
    CFakePort port;
    CGate entered;
    CGate release;
    CGate returned;
    bool returnedEarly = false;
    port.SetFunctionCallListener([&](auto const&, int, auto const&) {
        entered.Open();
        release.Wait();
        returnedEarly = returned.IsOpen();
    });
    std::thread receiver([&] { port.Call(callOf(1, "Type", "Open"), 0); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        port.SetFunctionCallListener([](auto const&, int, auto const&) {});
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    receiver.join();
    EXPECT_FALSE(returnedEarly);
}

TEST(CRpcPort, WhatAListenerHoldsOnToIsDestroyedBeforeItsReplacementReturns)
{
    CFakePort port;
    for (int round = 0; round < 500; ++round)
    {
        CGate entered;
        std::atomic<bool> destroyed{false};
        std::shared_ptr<void> held(nullptr, [&](void*) { destroyed = true; });
        port.SetFunctionCallListener([&entered, held](auto const&, int, auto const&) { entered.Open(); });
        held.reset();
        std::thread receiver([&] { port.Call(callOf(1, "Type", "Open"), 0); });
        ASSERT_TRUE(entered.Wait());

        port.SetFunctionCallListener({});

        EXPECT_TRUE(destroyed);
        receiver.join();
    }
}

TEST(CRpcPort, EmptyingTheCallListenerReturnsOnlyWhenTheOldOneIsNotRunningOnAnotherThread)
{
    CFakePort port;
    CGate entered;
    CGate release;
    CGate returned;
    port.SetFunctionCallListener([&](auto const&, int, auto const&) {
        entered.Open();
        release.Wait();
    });
    std::thread receiver([&] { port.Call(callOf(1, "Type", "Open"), 0); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        port.SetFunctionCallListener({});
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    receiver.join();
}

TEST(CRpcPort, ReplacingTheCallbackListenerReturnsOnlyWhenTheOldOneIsNotRunningOnAnotherThread)
{
    CFakePort port;
    CGate entered;
    CGate release;
    CGate returned;
    port.SetCallbackListener([&](auto const&) {
        entered.Open();
        release.Wait();
    });
    std::thread receiver([&] { port.Callback(callbackOf(1, "OnOpened")); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        port.SetCallbackListener([](auto const&) {});
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    receiver.join();
}

TEST(CRpcPort, EmptyingTheCallbackListenerReturnsOnlyWhenTheOldOneIsNotRunningOnAnotherThread)
{
    CFakePort port;
    CGate entered;
    CGate release;
    CGate returned;
    port.SetCallbackListener([&](auto const&) {
        entered.Open();
        release.Wait();
    });
    std::thread receiver([&] { port.Callback(callbackOf(1, "OnOpened")); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        port.SetCallbackListener({});
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    receiver.join();
}

TEST(CRpcPort, AListenerMayReplaceItselfAndKeepsItsStateUntilItReturns)
{
    CFakePort port;
    auto const text = std::make_shared<std::string>("still here");
    std::string seen;
    int later = 0;
    port.SetCallbackListener([&port, &seen, &later, held = text](auto const&) {
        port.SetCallbackListener([&later](auto const&) { ++later; });
        seen = *held;
    });

    port.Callback(callbackOf(1, "OnOpened"));
    EXPECT_EQ("still here", seen);
    EXPECT_EQ(1, text.use_count()); // gone once it returned
    EXPECT_EQ(0, later);

    port.Callback(callbackOf(1, "OnOpened"));
    EXPECT_EQ(1, later);
}

TEST(CRpcPort, AListenerMayRemoveItself)
{
    CFakePort port;
    int calls = 0;
    port.SetFunctionCallListener([&](auto const&, int, auto const&) {
        ++calls;
        port.SetFunctionCallListener({});
    });

    port.Call(callOf(1, "Type", "Open"), 0);
    port.Call(callOf(1, "Type", "Open"), 0);

    EXPECT_EQ(1, calls);
}

TEST(CRpcPort, AListenerMayDeliverToTheOtherListener)
{
    CFakePort port;
    int callbacks = 0;
    port.SetCallbackListener([&](auto const&) { ++callbacks; });
    port.SetFunctionCallListener([&](auto const&, int, auto const&) { port.Callback(callbackOf(1, "OnOpened")); });

    port.Call(callOf(1, "Type", "Open"), 0);

    EXPECT_EQ(1, callbacks);
}

TEST(CRpcPort, AfterAReplacementReturnedTheOldListenerTouchesNothingWhileMessagesKeepArriving)
{
    CFakePort port;
    port.SetCallbackListener([](auto const&) {});
    std::atomic<bool> stop{false};
    std::thread receiver([&] {
        while (!stop)
        {
            port.Callback(callbackOf(1, "OnOpened"));
        }
    });

    std::atomic<int> late{0};
    for (int round = 0; round < 200; ++round)
    {
        struct SUsed
        {
            CGate reached;
            int seen = 0; // plain: that the removal waits is what makes reading it right
            std::atomic<bool> removed{false};
        };
        auto const used = std::make_unique<SUsed>();
        port.SetCallbackListener([&late, used = used.get()](auto const&) {
            late += used->removed ? 1 : 0;
            ++used->seen;
            used->reached.Open();
        });
        EXPECT_TRUE(used->reached.Wait());
        port.SetCallbackListener([](auto const&) {});
        used->removed = true;
        EXPECT_LE(1, used->seen);
    }
    stop = true;
    receiver.join();

    EXPECT_EQ(0, late);
}

TEST(CRpcPort, ThatDoesNotSayOtherwiseMakesAnAsynchronousCallBeforeItReturns)
{
    CFakePort port;
    port.AnswerNext(listOf(8));
    std::vector<std::thread::id> threads;
    std::string seen;

    port.CallFunctionAsync(listOf(1), 3, {}, [&](CCallResult const& result) {
        threads.push_back(std::this_thread::get_id());
        seen = types::toString(result.GetList());
    });

    EXPECT_EQ(std::vector<std::thread::id>{std::this_thread::get_id()}, threads);
    EXPECT_EQ(types::toString(listOf(8)), seen);
    ASSERT_EQ(1u, port.Calls().size());
    EXPECT_EQ(3, port.Calls()[0].connectionId);
    EXPECT_EQ(types::toString(listOf(1)), types::toString(port.Calls()[0].list));
}

TEST(CRpcPort, TakesAnAsynchronousCallThatNobodyWantsToHearOf)
{
    CFakePort port;
    port.CallFunctionAsync(listOf(1), 0, {}, nullptr);

    EXPECT_EQ(1u, port.Calls().size());
}

TEST(CRpcPort, ThatDoesNotSayWhyACallFailedCountsItAsDisconnected)
{
    CFakePort port;
    port.AnswerNext(listOf(8));
    EXPECT_EQ(ECallStatus::Ok, port.TryCallFunction(listOf(1), 0).GetStatus());

    CCallResult const failed = port.TryCallFunction(listOf(1), 0, CCallOptions(100));
    EXPECT_EQ(ECallStatus::Disconnected, failed.GetStatus());
    EXPECT_EQ("no result came, and the port does not say why", failed.GetReason());
}

TEST(CRpcPort, CanBeDestroyedThroughItsBaseClass)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CRpcPort>);
    EXPECT_TRUE(std::is_abstract_v<CRpcPort>);
}

#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
TEST(CRpcPort, VirtualOperationsKeepTheirPlacesForCallersCompiledEarlier)
{
    // The destructor takes the first two.
    EXPECT_EQ(2, virtualSlotOf(&CRpcPort::CallFunction));
    EXPECT_EQ(3, virtualSlotOf(&CRpcPort::SendCallback));
    EXPECT_EQ(4, virtualSlotOf(&CRpcPort::IsConnected));
    EXPECT_EQ(5, virtualSlotOf(&CRpcPort::SetTimeoutMs));
}
#endif
