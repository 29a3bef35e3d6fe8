#include "CFakePort.h"
#include "CGate.h"
#include "CLogCapture.h"
#include "CancelState.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
extern "C" void __asan_handle_no_return();
#endif
#endif

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

/// What the port was given, as texts.
Lines callsOf(CFakePort const& port)
{
    Lines calls;
    for (auto const& call : port.Calls())
    {
        calls.push_back(types::toString(call.list));
    }
    return calls;
}

std::string ctorCall(std::string const& typeName)
{
    return types::toString(callOf(0, "CClientConnection", "ctor", typeName));
}

std::string dtorCall(int actorId)
{
    return types::toString(callOf(0, "CClientConnection", "dtor", actorId));
}

/// A list with one value at 0.
types::CValueList holding(std::shared_ptr<types::CValue> value)
{
    types::CValueList list;
    list[0] = std::move(value);
    return list;
}
} // namespace

class CActorProxyOnClient : public ::testing::Test
{
protected:
    CFakePort m_port;
    CRpcClient m_client{m_port};
};

using CActorProxyOnClientDeathTest = CActorProxyOnClient;

// Making an actor

TEST_F(CActorProxyOnClient, ACreatingProxyHasTheServerMakeAnActorAndTakesItsId)
{
    m_port.AnswerNext(listOf(7));
    CLogCapture log;

    CActorProxy proxy(&m_client, "Counter");

    EXPECT_EQ(7, proxy.GetId());
    EXPECT_EQ(&m_client, proxy.GetRpcClient());
    ASSERT_EQ(Lines{ctorCall("Counter")}, callsOf(m_port));
    EXPECT_TRUE(types::hasType<std::string>(*m_port.Calls()[0].list.at(0)));
    EXPECT_EQ(0, m_port.Calls()[0].connectionId);
    EXPECT_EQ(
        (Lines{"CActorProxy::CActorProxy", "CRpcClient::CallFunction CClientConnection::ctor",
               "CRpcClient::CallFunction CClientConnection::ctor done", "CRpcClient::SubscribeCallbacks actorId = 7"}),
        log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CActorProxyOnClient, ACreatingProxyWithoutAReplyHasIdZeroAndLogsNoError)
{
    CLogCapture log;
    CActorProxy proxy(&m_client, "Counter");

    EXPECT_EQ(0, proxy.GetId());
    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
    EXPECT_TRUE(log.Contains("CRpcClient::SubscribeCallbacks actorId = 0"));
}

TEST_F(CActorProxyOnClient, ACreatingProxyWhoseReplyHasNothingAtZeroHasIdZero)
{
    types::CValueList reply;
    reply[1] = types::makeValue<int>(7);
    reply[-2] = types::makeValue<int>(8);
    m_port.AnswerNext(reply);

    CActorProxy proxy(&m_client, "Counter");

    EXPECT_EQ(0, proxy.GetId());
}

TEST_F(CActorProxyOnClient, ACreatingProxyWithoutAnIdTakesTheCallbacksOfActorZeroOverAndItsEndDropsThem)
{
    int onKill = 0;
    CProxyCallback<>(*m_client.GetConnectionProxy(), "OnKill").Subscribe([&] { ++onKill; });
    int taken = 0;
    {
        CActorProxy proxy(&m_client, "Counter");
        proxy.SubscribeCallback("OnKill", [&](types::CValueList const&) { ++taken; });
        m_port.Callback(callbackOf(0, "OnKill"));
        EXPECT_EQ(1, taken);
        EXPECT_EQ(0, onKill);
    }
    CLogCapture log;
    m_port.Callback(callbackOf(0, "OnKill"));

    EXPECT_EQ(0, onKill);
    EXPECT_EQ(1U, log.Texts().size());                      // the client's own line
    EXPECT_EQ(Lines{ctorCall("Counter")}, callsOf(m_port)); // and no dtor
}

TEST_F(CActorProxyOnClientDeathTest, AnIdOfAnotherTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            m_port.AnswerNext(listOf(std::string("7")));
            CActorProxy(&m_client, "Counter");
        },
        "wrong type in CValue");
}

TEST_F(CActorProxyOnClient, AnAttachingProxySendsNothingAndLogsOnlyItsSubscription)
{
    CLogCapture log;

    CActorProxy proxy(&m_client, "Counter", 12);

    EXPECT_EQ(12, proxy.GetId());
    EXPECT_TRUE(m_port.Calls().empty());
    EXPECT_EQ(Lines{"CRpcClient::SubscribeCallbacks actorId = 12"}, log.Texts());
    EXPECT_TRUE(std::has_virtual_destructor_v<CActorProxy>);
}

// Calls

TEST_F(CActorProxyOnClient, ARemoteCallCarriesTypeAndIdAndGivesTheReplyUnchanged)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    types::CValueList answer = listOf(9);
    answer[-7] = types::makeValue<int>(1);
    m_port.AnswerNext(answer);

    auto const reply = proxy.RemoteCall("Add", listOf(4, 5));

    EXPECT_EQ(types::toString(answer), types::toString(reply));
    EXPECT_EQ(Lines{types::toString(callOf(12, "Counter", "Add", 4, 5))}, callsOf(m_port));
}

TEST_F(CActorProxyOnClient, AProxyWithoutAnIdCallsActorZeroUnderItsOwnType)
{
    CActorProxy proxy(&m_client, "Counter");

    proxy.RemoteCall("Add", listOf(4));

    EXPECT_EQ(types::toString(callOf(0, "Counter", "Add", 4)), callsOf(m_port).back());
}

TEST_F(CActorProxyOnClient, TheFunctionsBehindTheEndpointsCallAndSubscribeOnTheProxy)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    m_port.AnswerNext(listOf(9));
    int handled = 0;

    auto const reply = types::internal_proxyfunction::ActorProxyCallFunction(proxy, "Add", listOf(4));
    types::internal_proxyfunction::ActorProxySubscribeCallback(proxy, "OnChanged",
                                                               [&](types::CValueList const&) { ++handled; });
    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_EQ(types::toString(listOf(9)), types::toString(reply));
    EXPECT_EQ(Lines{types::toString(callOf(12, "Counter", "Add", 4))}, callsOf(m_port));
    EXPECT_EQ(1, handled);
}

// Callbacks

TEST_F(CActorProxyOnClient, ACallbackIsLoggedAndReachesTheHandlerOfItsNameWithTheWholeList)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    std::string seen;
    int others = 0;
    proxy.SubscribeCallback("OnChanged", [&](types::CValueList const& list) { seen = types::toString(list); });
    proxy.SubscribeCallback("OnOther", [&](types::CValueList const&) { ++others; });
    CLogCapture log;
    auto const callback = callbackOf(12, "OnChanged", 3);

    m_port.Callback(callback);

    EXPECT_EQ(types::toString(callback), seen);
    EXPECT_EQ(0, others);
    EXPECT_EQ((Lines{"CRpcClient::OnCallback = " + types::toString(callback),
                     "CActorProxy::OnCallback OnChanged with args = " + types::toString(callback)}),
              log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CActorProxyOnClient, ACallbackWithoutAHandlerLogsOneErrorLine)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    proxy.SubscribeCallback("OnOther", [](types::CValueList const&) {});
    CLogCapture log;

    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_EQ(Lines{"CActorProxy::OnCallback Callback with name = OnChanged is not registered"},
              log.Texts(ELevel::Error));
}

TEST_F(CActorProxyOnClient, SubscribingLogsNothing)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    CLogCapture log;

    proxy.SubscribeCallback("OnChanged", [](types::CValueList const&) {});

    EXPECT_TRUE(log.Texts().empty());
}

TEST_F(CActorProxyOnClient, ASecondHandlerOfOneNameReplacesTheFirst)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    int first = 0;
    int second = 0;
    proxy.SubscribeCallback("OnChanged", [&first, held](types::CValueList const&) { ++first; });
    held.reset();
    proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++second; });
    EXPECT_TRUE(watch.expired());

    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
}

TEST_F(CActorProxyOnClient, AnEmptyHandlerRaisesBadFunctionCallAtWhoeverDelivers)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    proxy.SubscribeCallback("OnChanged", {});

    EXPECT_THROW(m_port.Callback(callbackOf(12, "OnChanged")), std::bad_function_call);
}

TEST_F(CActorProxyOnClient, UnsettingItsCallbacksSilencesItUntilTheyAreSetAgain)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    int handled = 0;
    proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++handled; });
    CLogCapture log;

    proxy.UnsetCallbacks();
    m_port.Callback(callbackOf(12, "OnChanged"));
    EXPECT_EQ(0, handled);
    proxy.SetCallbacks();
    m_port.Callback(callbackOf(12, "OnChanged"));
    EXPECT_EQ(1, handled);

    EXPECT_EQ(1, log.Count("] CRpcClient::UnsubscribeCallbacks actorId = 12"));
    EXPECT_EQ(1, log.Count("] CRpcClient::SubscribeCallbacks actorId = 12"));
}

TEST_F(CActorProxyOnClient, EveryProxyHasAnOnRecreateEndpointThatIsDispatchedLikeAnyOther)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    int recreated = 0;
    proxy.OnRecreate.Subscribe([&] { ++recreated; });

    m_port.Callback(callbackOf(12, "OnRecreate"));

    EXPECT_EQ(1, recreated);
}

TEST_F(CActorProxyOnClient, NothingIsSubscribedToOnRecreateByItself)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    CLogCapture log;

    m_port.Callback(callbackOf(12, "OnRecreate"));

    EXPECT_TRUE(log.Contains("Callback with name = OnRecreate is not registered"));
}

TEST_F(CActorProxyOnClient, OnKillOfTheConnectionReachesWhoeverSubscribedToIt)
{
    int byName = 0;
    int byMember = 0;
    CProxyCallback<>(*m_client.GetConnectionProxy(), "OnKill").Subscribe([&] { ++byName; });
    m_port.Callback(callbackOf(0, "OnKill"));
    dynamic_cast<CClientConnectionProxy*>(m_client.GetConnectionProxy())->OnKill.Subscribe([&] { ++byMember; });
    m_port.Callback(callbackOf(0, "OnKill"));

    EXPECT_EQ(1, byName);
    EXPECT_EQ(1, byMember);
}

// The end of a proxy

TEST_F(CActorProxyOnClient, ItsEndUnsubscribesAndHasTheServerDestroyTheActor)
{
    CLogCapture log;
    m_port.AnswerNext(listOf(7));
    {
        CActorProxy const proxy(&m_client, "Counter");
        log.Clear();
        m_port.AnswerNext(listOf(true));
    }
    EXPECT_EQ((Lines{ctorCall("Counter"), dtorCall(7)}), callsOf(m_port));
    EXPECT_EQ((Lines{"CActorProxy::~CActorProxy actorId=7", "CRpcClient::UnsubscribeCallbacks actorId = 7",
                     "CRpcClient::CallFunction CClientConnection::dtor",
                     "CRpcClient::CallFunction CClientConnection::dtor done"}),
              log.Texts());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CActorProxyOnClient, TheEndOfAnAttachedProxyDestroysTheActorToo)
{
    {
        CActorProxy const proxy(&m_client, "Counter", 12);
    }
    EXPECT_EQ(Lines{dtorCall(12)}, callsOf(m_port));
}

TEST_F(CActorProxyOnClient, ANegativeIdIsDestroyedToo)
{
    {
        CActorProxy const proxy(&m_client, "Counter", -3);
    }
    EXPECT_EQ(Lines{dtorCall(-3)}, callsOf(m_port));
}

TEST_F(CActorProxyOnClient, AProxyAttachedToActorZeroNeverDestroysIt)
{
    {
        CActorProxy const proxy(&m_client, "CClientConnection", 0);
    }
    EXPECT_TRUE(m_port.Calls().empty());
}

TEST_F(CActorProxyOnClient, AfterItsEndItsCallbacksAreDropped)
{
    int handled = 0;
    {
        CActorProxy proxy(&m_client, "Counter", 12);
        proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++handled; });
    }
    CLogCapture log;
    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_EQ(0, handled);
    EXPECT_EQ(1U, log.Texts().size());
}

TEST_F(CActorProxyOnClient, ItsEndDestroysItsHandlers)
{
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    {
        CActorProxy proxy(&m_client, "Counter", 12);
        proxy.SubscribeCallback("OnChanged", [held](types::CValueList const&) {});
        held.reset();
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST_F(CActorProxyOnClient, ItsEndAcceptsNoReplyAndBooleansInEitherForm)
{
    std::vector<types::CValueList> const replies{
        {},
        listOf(true),
        listOf(false),
        holding(types::makeValue<bool>(true)),
        holding(types::makeValue<bool>(false)),
        holding(std::make_shared<types::CBinaryValue>("abc", 3, types::binarykind::Opaque)),
        holding(std::make_shared<types::CBinaryValue>(nullptr, 0, types::binarykind::Bool))};
    for (auto const& reply : replies)
    {
        CActorProxy const proxy(&m_client, "Counter", 12);
        m_port.AnswerNext(reply);
    }
    EXPECT_EQ(replies.size(), m_port.Calls().size());
}

TEST_F(CActorProxyOnClientDeathTest, AReplyOfAnotherTypeToItsEndLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CActorProxy const proxy(&m_client, "Counter", 12);
            m_port.AnswerNext(listOf(1));
        },
        "wrong type in CValue");
}

TEST_F(CActorProxyOnClient, OfTwoProxiesOfOneActorTheLaterGetsTheCallbacksAndTheEndOfEitherEndsThem)
{
    auto first = std::make_unique<CActorProxy>(&m_client, "Counter", 12);
    auto second = std::make_unique<CActorProxy>(&m_client, "Counter", 12);
    int toFirst = 0;
    int toSecond = 0;
    first->SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++toFirst; });
    second->SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++toSecond; });

    m_port.Callback(callbackOf(12, "OnChanged"));
    EXPECT_EQ(0, toFirst);
    EXPECT_EQ(1, toSecond);

    first.reset();
    m_port.Callback(callbackOf(12, "OnChanged"));
    EXPECT_EQ(1, toSecond);

    second.reset();
    EXPECT_EQ((Lines{dtorCall(12), dtorCall(12)}), callsOf(m_port));
}

// Threads

TEST_F(CActorProxyOnClient, ItsEndWaitsForAHandlerThatRunsOnAnotherThread)
{
    auto proxy = std::make_unique<CActorProxy>(&m_client, "Counter", 12);
    CGate entered;
    CGate release;
    CGate gone;
    bool goneEarly = false;
    proxy->SubscribeCallback("OnChanged", [&](types::CValueList const&) {
        entered.Open();
        release.Wait();
        goneEarly = gone.IsOpen();
    });
    std::thread delivery([&] { m_port.Callback(callbackOf(12, "OnChanged")); });
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        proxy.reset();
        gone.Open();
    });
    EXPECT_TRUE(gone.StaysShut());
    release.Open();

    EXPECT_TRUE(gone.Wait());
    owner.join();
    delivery.join();
    EXPECT_FALSE(goneEarly);
}

TEST_F(CActorProxyOnClient, AHandlerMayDestroyItsOwnProxyAndKeepsItsStateUntilItReturns)
{
    auto proxy = std::make_unique<CActorProxy>(&m_client, "Counter", 12);
    std::string seen;
    proxy->SubscribeCallback("OnChanged",
                             [&, held = std::make_shared<std::string>("still here")](types::CValueList const&) {
                                 proxy.reset();
                                 seen = *held;
                             });

    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_FALSE(proxy);
    EXPECT_EQ("still here", seen);
    EXPECT_EQ(Lines{dtorCall(12)}, callsOf(m_port));
}

TEST_F(CActorProxyOnClient, AHandlerMayDestroyAnotherProxyAndMakeANewOne)
{
    auto other = std::make_unique<CActorProxy>(&m_client, "Counter", 13);
    std::unique_ptr<CActorProxy> made;
    CActorProxy proxy(&m_client, "Counter", 12);
    proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) {
        other.reset();
        m_port.AnswerNext(listOf(14));
        made = std::make_unique<CActorProxy>(&m_client, "Counter");
    });

    m_port.Callback(callbackOf(12, "OnChanged"));

    ASSERT_TRUE(made);
    EXPECT_EQ(14, made->GetId());
    EXPECT_EQ((Lines{dtorCall(13), ctorCall("Counter")}), callsOf(m_port));
}

TEST_F(CActorProxyOnClient, AHandlerMayCallItsActorAndReplaceItself)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    m_port.AnswerNext(listOf(5));
    std::string answer;
    int later = 0;
    proxy.SubscribeCallback("OnChanged", [&, held = std::make_shared<int>(4)](types::CValueList const&) {
        proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { ++later; });
        answer = types::toString(proxy.RemoteCall("Add", listOf(*held)));
    });

    m_port.Callback(callbackOf(12, "OnChanged"));
    m_port.Callback(callbackOf(12, "OnChanged"));

    EXPECT_EQ(types::toString(listOf(5)), answer);
    EXPECT_EQ(1, later);
}

TEST_F(CActorProxyOnClient, HandlersMayBeSubscribedWhileCallbacksArrive)
{
    CActorProxy proxy(&m_client, "Counter", 12);
    proxy.SubscribeCallback("OnChanged", [](types::CValueList const&) {});
    std::atomic<bool> stop{false};
    std::thread delivery([&] {
        while (!stop)
        {
            m_port.Callback(callbackOf(12, "OnChanged", 1));
        }
    });
    for (int round = 0; round < 100; ++round)
    {
        CGate reached;
        proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { reached.Open(); });
        proxy.SubscribeCallback("OnOther" + std::to_string(round), [](types::CValueList const&) {});
        EXPECT_TRUE(reached.Wait());
        proxy.SubscribeCallback("OnChanged", [](types::CValueList const&) {}); // the gate is used no more
    }
    stop = true;
    delivery.join();
}

TEST_F(CActorProxyOnClient, ProxiesMayBeMadeAndDestroyedWhileCallbacksArrive)
{
    std::atomic<bool> stop{false};
    std::thread delivery([&] {
        for (int callback = 0; !stop; ++callback)
        {
            m_port.Callback(callbackOf(20 + callback % 2, "OnChanged", callback));
        }
    });
    std::vector<std::thread> owners;
    for (int owner = 0; owner < 2; ++owner)
    {
        owners.emplace_back([&, owner] {
            for (int round = 0; round < 40; ++round)
            {
                auto const reached = std::make_unique<CGate>(); // outlives the proxy, and nothing else
                CActorProxy proxy(&m_client, "Counter", 20 + owner);
                proxy.SubscribeCallback("OnChanged", [&](types::CValueList const&) { reached->Open(); });
                EXPECT_TRUE(reached->Wait());
            }
        });
    }
    for (auto& owner : owners)
    {
        owner.join();
    }
    stop = true;
    delivery.join();

    EXPECT_EQ(80U, m_port.Calls().size()); // the dtors
}

TEST_F(CActorProxyOnClient, AWorkerThatUsesAProxyCannotBeCancelledInsideTheLibrary)
{
    std::vector<int> inPort;
    m_port.OnCallFunction([&](types::CValueList const&, int) {
        inPort.push_back(cancelState().state);
        return inPort.size() < 3 ? listOf(1) : listOf(true);
    });
    SCancelState afterCall;
    SCancelState afterEnd;
    CLoopThread worker;
    worker.Post(
        [&] {
            {
                CActorProxy proxy(&m_client, "Counter");
                proxy.RemoteCall("Add", {});
                afterCall = cancelState();
            }
            static_cast<void>(m_client.IsConnected());
            afterEnd = cancelState();
        },
        "item");
    worker.StopAndJoin();

    EXPECT_EQ((std::vector<int>(3, PTHREAD_CANCEL_DISABLE)), inPort); // "ctor", the call and "dtor"
    for (SCancelState const& after : {afterCall, afterEnd})
    {
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, after.state);
        EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, after.type);
    }
}

namespace
{
/// AddressSanitizer does not notice when a cancellation takes frames away; what is destroyed next would meet their marks.
struct SForgetFrames
{
    __attribute__((no_sanitize("address"))) ~SForgetFrames()
    {
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
        __asan_handle_no_return();
#endif
#endif
    }
};
} // namespace

TEST_F(CActorProxyOnClient, AProxyWhoseWorkerIsKilledWhileItIsMadeIsDestroyedAgain)
{
    CLogCapture log;
    CGate called;
    std::atomic<bool> giveUp{false};
    m_port.OnCallFunction([&](types::CValueList const& call, int) {
        if (types::unpackAt<std::string>(call, protocol::METHOD_NAME) != protocol::CTOR)
        {
            return listOf(true);
        }
        called.Open();
        log.WaitFor("CLoopThread::Kill thread ");
        return listOf(7);
    });
    CLoopThread worker;
    worker.Post(
        [&] {
            CActorProxy proxy(&m_client, "Counter");
            SForgetFrames const forgetFrames;
            while (!giveUp)
            {
                static_cast<void>(m_client.IsConnected()); // where it ends at the latest
            }
        },
        "item");
    ASSERT_TRUE(called.Wait());

    worker.Kill();
    giveUp = true;

    EXPECT_EQ(dtorCall(7), callsOf(m_port).back());
    log.Clear();
    auto late = callbackOf(7, "OnChanged");
    m_port.OnCallback(late);
    EXPECT_EQ(0, log.Count("CActorProxy::OnCallback"));
}
