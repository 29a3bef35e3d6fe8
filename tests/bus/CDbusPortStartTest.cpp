#include "BusTest.h"

#include <atomic>
#include <cstdlib>

namespace
{

class CDbusPortStart : public CBusTest
{
protected:
    CRawPeer m_peer;
};

/// Without a connection before the test's own: libdbus has not read the bus's address yet.
class CDbusPortFirstStartDeathTest : public CBusTest
{
};

/// Remembers when it saw the first line with a beginning.
class CFirstSight
{
public:
    explicit CFirstSight(std::string part) : m_part(std::move(part))
    {
        nelo_rpc::log::SetSink([this](ELevel, std::string const& line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_seen && line.find(m_part) != std::string::npos)
            {
                m_seen = true;
                m_when.set_value(steady_clock::now());
            }
        });
    }

    ~CFirstSight() { installStderrSink(); }

    std::future<steady_clock::time_point> When() { return m_when.get_future(); }

private:
    std::string const m_part;
    std::mutex m_mutex;
    bool m_seen = false;
    std::promise<steady_clock::time_point> m_when;
};

} // namespace

TEST_F(CDbusPortStart, LogsAnAsynchronousModeAsOne)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort created : bUseAsync = 1"));
}

TEST_F(CDbusPortStart, LogsASynchronousModeAsZero)
{
    CLogCapture log;
    CDbusPort const port(m_client.c_str(), false);

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort created : bUseAsync = 0"));
    EXPECT_EQ(0, countLinesOf(log, ELevel::Error));
}

TEST_F(CDbusPortStart, OwnsItsNameInAsynchronousMode)
{
    EXPECT_EQ("", m_peer.OwnerOf(m_server));
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_NE("", m_peer.OwnerOf(m_server));
    EXPECT_NE(m_peer.GetUniqueName(), m_peer.OwnerOf(m_server));
}

TEST_F(CDbusPortStart, LeavesItsNameAloneInSynchronousMode)
{
    CDbusPort const port(m_client.c_str(), m_server.c_str(), false);

    EXPECT_EQ("", m_peer.OwnerOf(m_client));
}

TEST_F(CDbusPortStart, GivesItsNameBackWhenItIsDestroyed)
{
    {
        CDbusPort const port(m_server.c_str(), true);
    }

    // The bus notices a closed connection in its own time.
    EXPECT_TRUE(eventually([&] { return m_peer.OwnerOf(m_server).empty(); }));
}

TEST_F(CDbusPortStart, TakesItsNameFromAnOwnerThatAllowsIt)
{
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, m_peer.RequestName(m_server, DBUS_NAME_FLAG_ALLOW_REPLACEMENT));
    CEchoPort port(m_server);

    EXPECT_NE(m_peer.GetUniqueName(), m_peer.OwnerOf(m_server));
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    EXPECT_EQ(5, intOf(client.CallFunction(listOf(5), 0)));
}

TEST_F(CDbusPortStart, DoesNotLetAnotherTakeItsName)
{
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_EQ(DBUS_REQUEST_NAME_REPLY_EXISTS,
              m_peer.RequestName(m_server, DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE));
}

TEST_F(CDbusPortStart, CountsBeingQueuedBehindAnotherOwnerAsSuccess)
{
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, m_peer.RequestName(m_server));
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_EQ(m_peer.GetUniqueName(), m_peer.OwnerOf(m_server));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort created : bUseAsync = 1"));
    EXPECT_TRUE(log.WaitFor("start m_reciverThread !"));
    EXPECT_EQ(0, log.Count("Dbus request name failed"));
    EXPECT_EQ(1, countLinesOf(log, ELevel::Info)) << "the queueing itself is worth one line";
}

TEST_F(CDbusPortStart, SaysNothingOfQueueingWhenItOwnsItsName)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_TRUE(log.WaitFor("start m_reciverThread !"));
    EXPECT_EQ(0, countLinesOf(log, ELevel::Info));
}

TEST_F(CDbusPortStart, ServesItsNameOnceTheOwnerBeforeItLeft)
{
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, m_peer.RequestName(m_server));
    CEchoPort port(m_server);
    m_peer.ReleaseName(m_server);

    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    EXPECT_EQ(6, intOf(client.CallFunction(listOf(6), 0)));
}

class CDbusPortBadName : public CDbusPortStart, public ::testing::WithParamInterface<SLabelled>
{
};

TEST_P(CDbusPortBadName, IsLoggedAndLeavesThePortWithoutAReceiver)
{
    CLogCapture log;
    {
        CDbusPort const port(GetParam().text, true);

        EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus request name failed: "));
        EXPECT_EQ(1, countLinesOf(log, ELevel::Error));
        EXPECT_EQ(0, log.Count("CDbusPort created"));
    }
    // A thread would have been joined by now, and its start logged.
    EXPECT_EQ(0, log.Count("start m_reciverThread !"));
}

TEST_P(CDbusPortBadName, LeavesAPortWhoseOperationsFailInsteadOfEndingTheProcess)
{
    CDbusPort port(GetParam().text, true);
    int const peer = port.AddConnection(m_peer.GetUniqueName());

    EXPECT_FALSE(port.IsConnected(peer + 1));
    EXPECT_FALSE(port.SendCallback(listOf(1), peer + 1));
    port.IsConnected(peer); // these two may work or fail: there is a connection, but no name
    port.SendCallback(listOf(1), peer);
    port.SetTimeoutMs(100);
}

INSTANTIATE_TEST_SUITE_P(Names, CDbusPortBadName,
                         ::testing::Values(SLabelled{"Empty", ""}, SLabelled{"OneElement", "nodot"},
                                           SLabelled{"LeadingDot", ".org.trelin"}, SLabelled{"TwoDots", "org..trelin"},
                                           SLabelled{"TrailingDot", "org.trelin."}, SLabelled{"Space", "org.tre lin"},
                                           SLabelled{"LeadingDigit", "org.1trelin"}, SLabelled{"Slash", "org/trelin"},
                                           SLabelled{"UniqueName", ":1.1"}, SLabelled{"BusItself", DBUS_SERVICE_DBUS},
                                           SLabelled{"InvalidUtf8", "org.trelin.\xff\xfe"}),
                         labelOf);

TEST_F(CDbusPortStart, ANameOfMoreThan255BytesIsLoggedAndLeavesThePortWithoutAReceiver)
{
    CLogCapture log;
    std::string const name = "org." + std::string(300, 'x');
    CDbusPort const port(name.c_str(), true);

    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus request name failed: "));
}

TEST_F(CDbusPortStart, ABadNameDoesNoHarmInSynchronousMode)
{
    CEchoPort server(m_server);
    CLogCapture log;
    CDbusPort port("", m_server.c_str(), false);

    EXPECT_EQ(7, intOf(port.CallFunction(listOf(7), 0)));
    EXPECT_EQ(0, log.Count("Dbus request name failed"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort created : bUseAsync = 0"));
}

TEST_F(CDbusPortStart, ReportsABusThatIsNotThere)
{
    CBusOutage const outage;
    CLogCapture log;
    CDbusPort const synchronous(m_client.c_str(), m_server.c_str(), false);
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus connection failed: "));

    CDbusPort const asynchronous(m_server.c_str(), true);
    EXPECT_EQ(2, countLinesThatBegin(log, ELevel::Error, "Dbus connection failed: "));

    EXPECT_EQ(2, countLinesOf(log, ELevel::Error));
    EXPECT_EQ(0, log.Count("CDbusPort created"));
    EXPECT_EQ(0, log.Count("start m_reciverThread !"));
}

TEST_F(CDbusPortStart, WithoutABusACallFailsAsNoReply)
{
    CBusOutage const outage;
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    CLogCapture log;

    EXPECT_TRUE(port.CallFunction(listOf(1), 0).empty());
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_F(CDbusPortStart, WithoutABusNobodyIsConnected)
{
    CBusOutage const outage;
    CDbusPort const synchronous(m_client.c_str(), m_server.c_str(), false);
    CDbusPort const asynchronous(m_server.c_str(), m_client.c_str(), true);

    EXPECT_FALSE(synchronous.IsConnected(0));
    EXPECT_FALSE(synchronous.IsConnected(1));
    EXPECT_FALSE(asynchronous.IsConnected(0));
}

TEST_F(CDbusPortStart, WithoutABusNoCallbackIsSent)
{
    CBusOutage const outage;
    CDbusPort port(m_server.c_str(), m_client.c_str(), true);

    EXPECT_FALSE(port.SendCallback(listOf(1), 0));
    EXPECT_FALSE(port.SendCallback(listOf(1), 1));
}

TEST_F(CDbusPortStart, WithoutABusConnectionIdsAreStillHandedOut)
{
    CBusOutage const outage;
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);

    EXPECT_EQ(1, port.AddConnection("org.trelin.another"));
}

TEST_F(CDbusPortStart, WithoutABusTheTimeoutIsStillTaken)
{
    CBusOutage const outage;
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    CLogCapture log;
    port.SetTimeoutMs(3);

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SetTimeoutMs timeoutMs = 3"));
}

TEST_F(CDbusPortStart, WithoutABusDeliveryHasNothingToDo)
{
    CBusOutage const outage;
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    {
        nelo_rpc::CCallbackDelivery const delivery(port);
        EXPECT_TRUE(port.CallFunction(listOf(1), 0).empty());
    }
    port.DispatchCallbacks();
}

TEST_F(CDbusPortFirstStartDeathTest, AnAddressThatPointsNowhereLeavesAPortThatCanBeDestroyed)
{
    // In a process of its own, because libdbus reads the address once.
    EXPECT_EXIT(
        {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/nelo_rpc/bus", 1);
            {
                CDbusPort asynchronous(m_server.c_str(), true);
                CDbusPort synchronous(m_client.c_str(), m_server.c_str(), false);
                if (!synchronous.CallFunction(listOf(1), 0).empty() || synchronous.IsConnected(0))
                {
                    std::exit(1);
                }
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "Dbus connection failed: ");
}

TEST_F(CDbusPortStart, HoldsItsFirstDispatchBackFor200Milliseconds)
{
    CFirstSight dispatch("CDbusPort::OnDbusMessage from ");
    auto when = dispatch.When();
    auto const start = steady_clock::now();
    CDbusPort const port(m_server.c_str(), true);

    // The bus itself sends something to dispatch: the news that the name was acquired.
    ASSERT_TRUE(isReady(when));
    EXPECT_GE(std::chrono::duration_cast<milliseconds>(when.get() - start).count(), 195);
}

TEST_F(CDbusPortStart, ServesACallThatCameBeforeItsListener)
{
    CDbusPort port(m_server.c_str(), true);
    MessagePtr const call = rawCall(m_server);
    putInt(call.get(), 0, 9);
    m_peer.Send(call.get());

    // The bus has the call once it answered the question behind it.
    m_peer.OwnerOf(m_server);
    port.SetFunctionCallListener(
        [](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) { reply(list); });

    MessagePtr const answer = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("0 0 9", describeBody(answer.get()));
}

TEST_F(CDbusPortStart, WaitsForItsListenerAsLongAsItTakesIfToldTo)
{
    CLogCapture log;
    nelo_rpc::SPortOptions options;
    options.waitForListener = true;
    CDbusPort port(m_server.c_str(), true, options);
    MessagePtr const call = rawCall(m_server);
    putInt(call.get(), 0, 10);
    m_peer.Send(call.get());

    EXPECT_EQ(nullptr, m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN, milliseconds(600)));
    EXPECT_EQ(0, log.Count("Function Listener is empty"));
    port.SetFunctionCallListener(
        [](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) { reply(list); });

    MessagePtr const answer = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("0 0 10", describeBody(answer.get()));
}

TEST_F(CDbusPortStart, CostsHardlyAnyProcessorTimeWhileItWaitsForItsListener)
{
    CDbusPort port(m_server.c_str(), "org.freedesktop.DBus", true, nelo_rpc::SPortOptions::Recommended());
    MessagePtr const call = rawCall(m_server);
    putInt(call.get(), 0, 10);
    m_peer.Send(call.get());
    EXPECT_TRUE(port.IsConnected(0)); // reads the call too, which nothing dispatches

    timespec before{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    EXPECT_EQ(nullptr, m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN, milliseconds(1500)));
    timespec after{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);

    auto const used = seconds(after.tv_sec - before.tv_sec) + std::chrono::nanoseconds(after.tv_nsec - before.tv_nsec);
    EXPECT_LT(used, milliseconds(300));
}

TEST_F(CDbusPortStart, IsToldToWaitForItsListenerByTheRecommendedOptions)
{
    EXPECT_TRUE(nelo_rpc::SPortOptions::Recommended().waitForListener);
    EXPECT_FALSE(nelo_rpc::SPortOptions().waitForListener);
}

TEST_F(CDbusPortStart, CanBeDestroyedWhileItWaitsForItsListener)
{
    auto const start = steady_clock::now();
    {
        CDbusPort const port(m_server.c_str(), true, nelo_rpc::SPortOptions::Recommended());
    }
    EXPECT_LT(since(start), seconds(10));
}

TEST_F(CDbusPortStart, KeepsTheDefaultPeersIdFromCallersThatWaitForItsName)
{
    // A caller that calls at the very moment the name appears must not be the first to get an id.
    for (int round = 0; round < 20; ++round)
    {
        std::string const name = CPrivateBus::UniqueName();
        MessagePtr const call = rawCall(name);
        std::atomic<bool> stop{false};
        std::thread caller([&] {
            CRawPeer peer;
            for (int i = 0; i < 100000 && !stop && peer.OwnerOf(name).empty(); ++i)
            {
            }
            peer.Send(call.get());
        });

        CDbusPort port(name.c_str(), "org.trelin.default", true);
        CInbox<int> ids;
        port.SetFunctionCallListener([&](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) {
            ids.Put(id);
            reply({});
        });

        EXPECT_TRUE(ids.WaitForCount(1));
        stop = true;
        caller.join();
        EXPECT_EQ(std::vector<int>{1}, ids.All());
        port.SetFunctionCallListener({});
    }
}

TEST_F(CDbusPortStart, EndsItsReceiverThreadWhenItIsDestroyed)
{
    CLogCapture log;
    auto port = std::make_unique<CDbusPort>(m_server.c_str(), true);
    int const receiver = waitForReceiver(log);
    EXPECT_TRUE(isThreadAlive(receiver));

    auto const start = steady_clock::now();
    port.reset();
    EXPECT_LT(since(start), seconds(10));
    EXPECT_TRUE(eventually([&] { return !isThreadAlive(receiver); }));
}

TEST_F(CDbusPortStart, HasNoReceiverInSynchronousMode)
{
    CLogCapture log;
    {
        CDbusPort const port(m_client.c_str(), m_server.c_str(), false);
    }
    EXPECT_EQ(0, log.Count("start m_reciverThread !"));
}

TEST_F(CDbusPortStart, LogsTheStartOfItsReceiver)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);

    EXPECT_TRUE(log.WaitFor("start m_reciverThread !"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "start m_reciverThread !"));
}

TEST_F(CDbusPortStart, IgnoresTheSignalsOfTheBusWithAnErrorLineEach)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);

    // The bus tells a connection of its unique name and of the name that it requested.
    std::string const line =
        "CDbusPort::OnDbusMessage ignoring message from org.freedesktop.DBus with path=/org/freedesktop/DBus";
    EXPECT_TRUE(log.WaitFor(line, 2));
    EXPECT_EQ(2, countLines(log, ELevel::Error, line));
    EXPECT_EQ(0, log.Count("Listener is empty"));
}

TEST_F(CDbusPortStart, CanBeDestroyedAndMadeAgainUnderTheSameName)
{
    for (int round = 0; round < 5; ++round)
    {
        CEchoPort server(m_server);
        CDbusPort client(m_client.c_str(), m_server.c_str(), false);
        EXPECT_EQ(round, intOf(client.CallFunction(listOf(round), 0)));
    }
}

TEST_F(CDbusPortFirstStartDeathTest, DestroyingAnAsynchronousPortLeavesTheProcessAlive)
{
    // A closed connection ends its whole process unless that is switched off.
    EXPECT_EXIT(
        {
            {
                CDbusPort port(m_server.c_str(), true);
            }
            std::exit(42);
        },
        ::testing::ExitedWithCode(42), "");
}
