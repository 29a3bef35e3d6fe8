#include "BusTest.h"

#include <climits>

namespace
{

/// An asynchronous port that reports the connection id of every call and answers none.
class CDbusPortConnectionIds : public CBusTest
{
protected:
    void Listen(CDbusPort& port)
    {
        port.SetFunctionCallListener([this](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) {
            m_ids.Put(id);
            reply(listOf(id));
        });
    }

    /// Calls and waits for the answer: the connection id that the port knows the peer by.
    std::string IdOf(CRawPeer& peer)
    {
        MessagePtr const call = rawCall(m_server);
        MessagePtr const answer = peer.Call(call.get());
        return answer != nullptr ? describeBody(answer.get()) : "no answer";
    }

    CInbox<int> m_ids;
};

using CDbusPortConnectionIdsDeathTest = CDbusPortConnectionIds;

std::string newClientLine(std::string const& sender, int id)
{
    return "CDbusPort.cpp: OnDbusMessage(122) > Message from new client " + sender +
           ", storing its connection id = " + std::to_string(id);
}

} // namespace

TEST_F(CDbusPortConnectionIds, StartAtZeroWithTheFirstPeerHeardFrom)
{
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    CRawPeer first;
    CRawPeer second;

    EXPECT_EQ("0 0 0", IdOf(first));
    EXPECT_EQ("0 0 1", IdOf(second));
}

TEST_F(CDbusPortConnectionIds, GiveZeroToTheDefaultPeerAndOneToTheFirstOther)
{
    CEchoPort defaultPeer(m_client);
    CDbusPort port(m_server.c_str(), m_client.c_str(), true);
    Listen(port);
    CRawPeer other;

    EXPECT_TRUE(port.IsConnected(0));
    EXPECT_FALSE(port.IsConnected(1));
    EXPECT_EQ("0 0 1", IdOf(other));
    EXPECT_TRUE(port.IsConnected(1));
}

TEST_F(CDbusPortConnectionIds, AreTheSameForASecondMessageOfOnePeer)
{
    CLogCapture log;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    CRawPeer peer;

    EXPECT_EQ("0 0 0", IdOf(peer));
    EXPECT_EQ("0 0 0", IdOf(peer));
    EXPECT_EQ(1, log.Count("Message from new client"));
}

TEST_F(CDbusPortConnectionIds, AreLoggedOnceWhenTheyAreNew)
{
    CLogCapture log;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    CRawPeer first;
    CRawPeer second;
    IdOf(first);
    IdOf(second);

    // Without a thread id in front, unlike other lines.
    std::vector<std::string> newClients;
    for (auto const& line : log.Lines())
    {
        if (line.line.find("new client") != std::string::npos)
        {
            EXPECT_EQ(ELevel::Error, line.level);
            newClients.push_back(line.line);
        }
    }
    EXPECT_EQ(
        (std::vector<std::string>{newClientLine(first.GetUniqueName(), 0), newClientLine(second.GetUniqueName(), 1)}),
        newClients);
}

TEST_F(CDbusPortConnectionIds, AreNewForAPeerThatCameBack)
{
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    {
        CRawPeer peer;
        EXPECT_EQ("0 0 0", IdOf(peer));
    }
    CRawPeer again;

    EXPECT_EQ("0 0 1", IdOf(again));
}

TEST_F(CDbusPortConnectionIds, AreGivenToTheSenderOfASignalToo)
{
    CLogCapture log;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    CInbox<CValueList> callbacks;
    port.SetCallbackListener([&](CValueList const& list) { callbacks.Put(list); });
    CRawPeer signalling;
    CRawPeer calling;

    MessagePtr const signal = rawSignal(m_server);
    signalling.Send(signal.get());
    ASSERT_TRUE(callbacks.WaitForCount(1));
    EXPECT_EQ("0 0 1", IdOf(calling));
    EXPECT_EQ(1, log.Count(newClientLine(signalling.GetUniqueName(), 0)));
}

TEST_F(CDbusPortConnectionIds, AreNotGivenToTheSenderOfAnIgnoredMessage)
{
    CLogCapture log;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    CRawPeer stray;
    CRawPeer peer;
    MessagePtr const call = rawCall(m_server, "/org/trelin/other");
    stray.Call(call.get());

    EXPECT_EQ("0 0 0", IdOf(peer));
}

TEST_F(CDbusPortConnectionIds, AreHandedOutInIncreasingOrder)
{
    CDbusPort port(m_client.c_str(), false);

    EXPECT_EQ(0, port.AddConnection("org.trelin.a"));
    EXPECT_EQ(1, port.AddConnection("org.trelin.b"));
    EXPECT_EQ(2, port.AddConnection("org.trelin.c"));
}

TEST_F(CDbusPortConnectionIds, AreNewForANameThatIsRegisteredTwice)
{
    CRawPeer peer;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);

    EXPECT_EQ(0, port.AddConnection(peer.GetUniqueName()));
    EXPECT_EQ(1, port.AddConnection(peer.GetUniqueName()));
    EXPECT_EQ("0 0 1", IdOf(peer)) << "the later id stands for the name";
}

TEST_F(CDbusPortConnectionIds, BothReachAPeerThatIsRegisteredTwice)
{
    CRawPeer peer;
    CDbusPort port(m_server.c_str(), true);
    port.AddConnection(peer.GetUniqueName());
    port.AddConnection(peer.GetUniqueName());

    EXPECT_TRUE(port.IsConnected(0));
    EXPECT_TRUE(port.IsConnected(1));
    for (int id = 0; id < 2; ++id)
    {
        EXPECT_TRUE(port.SendCallback(listOf(100 + id), id));
        MessagePtr const signal = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
        ASSERT_NE(nullptr, signal);
        EXPECT_EQ("0 0 " + std::to_string(100 + id), describeBody(signal.get()));
    }
}

TEST_F(CDbusPortConnectionIds, AreNotLoggedAsNewForAPeerThatWasRegisteredByName)
{
    CRawPeer peer;
    CLogCapture log;
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    port.AddConnection(peer.GetUniqueName());

    EXPECT_EQ("0 0 0", IdOf(peer));
    EXPECT_EQ(0, log.Count("new client"));
}

TEST_F(CDbusPortConnectionIds, GoByTheUniqueNameOfASenderAndNotByANameThatItOwns)
{
    CRawPeer peer;
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, peer.RequestName(m_client));
    CDbusPort port(m_server.c_str(), m_client.c_str(), true);
    Listen(port);

    EXPECT_EQ("0 0 1", IdOf(peer));
}

TEST_F(CDbusPortConnectionIds, OutliveThePeersTheyName)
{
    CDbusPort port(m_server.c_str(), true);
    Listen(port);
    {
        CRawPeer peer;
        IdOf(peer);
    }

    EXPECT_TRUE(eventually([&] { return !port.IsConnected(0); }));
    EXPECT_EQ(1, port.AddConnection("org.trelin.next"));
}

TEST_F(CDbusPortConnectionIds, OfTheDefaultPeerIsZeroWhenItIsAddedFirst)
{
    CEchoPort server(m_server);
    CDbusPort port(m_client.c_str(), false);
    port.AddDefaultConnection(m_server);

    EXPECT_EQ(3, intOf(port.CallFunction(listOf(3), 0)));
}

TEST_F(CDbusPortConnectionIdsDeathTest, OfADefaultPeerThatIsNotTheFirstLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_client.c_str(), false);
            port.AddConnection("org.trelin.first");
            port.AddDefaultConnection(m_server);
        },
        "Can use AddDefaultConnection only on initialization");
}

TEST_F(CDbusPortConnectionIdsDeathTest, OfASecondDefaultPeerLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_client.c_str(), m_server.c_str(), false);
            port.AddDefaultConnection(m_server);
        },
        "Can use AddDefaultConnection only on initialization");
}

TEST_F(CDbusPortConnectionIdsDeathTest, OfADefaultPeerAfterOneThatWasHeardFromLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_server.c_str(), true);
            Listen(port);
            CRawPeer peer;
            IdOf(peer);
            port.AddDefaultConnection(m_client);
        },
        "Can use AddDefaultConnection only on initialization");
}

TEST_F(CDbusPortConnectionIds, IsConnectedForAPeerThatIsThere)
{
    CRawPeer peer;
    CDbusPort port(m_client.c_str(), peer.GetUniqueName().c_str(), false);
    CLogCapture log;

    EXPECT_TRUE(port.IsConnected(0));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns true"));
}

TEST_F(CDbusPortConnectionIds, IsNotConnectedForANameThatNobodyOwns)
{
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    CLogCapture log;

    EXPECT_FALSE(port.IsConnected(0));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns false"));
}

TEST_F(CDbusPortConnectionIds, IsConnectedFollowsTheOwnerOfAName)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    EXPECT_FALSE(client.IsConnected(0));
    {
        CDbusPort const server(m_server.c_str(), true);
        EXPECT_TRUE(client.IsConnected(0));
    }
    EXPECT_TRUE(eventually([&] { return !client.IsConnected(0); }));
    CDbusPort const server(m_server.c_str(), true);
    EXPECT_TRUE(client.IsConnected(0));
}

TEST_F(CDbusPortConnectionIds, IsNotConnectedForAnIdThatWasNeverHandedOut)
{
    CDbusPort const port(m_client.c_str(), m_server.c_str(), false);

    for (int id : {1, 7, -1, INT_MAX, INT_MIN})
    {
        EXPECT_FALSE(port.IsConnected(id)) << id;
    }
}

TEST_F(CDbusPortConnectionIds, IsConnectedOfAnUnknownIdDoesNotAskTheBus)
{
    CDbusPort const port(m_client.c_str(), m_server.c_str(), false);
    std::future<bool> answer;
    {
        CBusPause const pause; // a question would wait for the end of the pause
        answer = std::async(std::launch::async, [&] { return port.IsConnected(5); });
        EXPECT_TRUE(isReady(answer, seconds(5)));
    }
    EXPECT_FALSE(answer.get());
}

TEST_F(CDbusPortConnectionIds, IsConnectedOfAKnownIdAsksTheBus)
{
    CRawPeer peer;
    CDbusPort const port(m_client.c_str(), peer.GetUniqueName().c_str(), false);
    std::future<bool> answer;
    {
        CBusPause const pause;
        answer = std::async(std::launch::async, [&] { return port.IsConnected(0); });
        EXPECT_FALSE(isReady(answer, milliseconds(300)));
    }
    ASSERT_TRUE(isReady(answer));
    EXPECT_TRUE(answer.get());
}

class CDbusPortMalformedPeer : public CBusTest, public ::testing::WithParamInterface<SLabelled>
{
};

TEST_P(CDbusPortMalformedPeer, IsNotConnected)
{
    CDbusPort const port(m_client.c_str(), GetParam().text, false);

    EXPECT_FALSE(port.IsConnected(0));
}

TEST_P(CDbusPortMalformedPeer, CannotBeCalled)
{
    CDbusPort port(m_client.c_str(), GetParam().text, false);
    CLogCapture log;

    EXPECT_TRUE(port.CallFunction(listOf(1), 0).empty());
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_P(CDbusPortMalformedPeer, GetsNoCallback)
{
    CDbusPort port(m_server.c_str(), GetParam().text, true);
    CLogCapture log;

    EXPECT_FALSE(port.SendCallback(listOf(1), 0));
    EXPECT_EQ(1, log.Count("CDbusPort::SendCallback failed, can't connect to "));
}

TEST_P(CDbusPortMalformedPeer, DoesNotSpoilThePortForOthers)
{
    CEchoPort server(m_server);
    CDbusPort port(m_client.c_str(), GetParam().text, false);
    int const good = port.AddConnection(m_server);
    port.CallFunction(listOf(1), 0);

    EXPECT_EQ(1, good);
    EXPECT_EQ(8, intOf(port.CallFunction(listOf(8), good)));
}

INSTANTIATE_TEST_SUITE_P(Names, CDbusPortMalformedPeer,
                         ::testing::Values(SLabelled{"Empty", ""}, SLabelled{"Blank", " "},
                                           SLabelled{"OneElement", "nodot"}, SLabelled{"TwoDots", "org..trelin"},
                                           SLabelled{"LeadingDot", ".org.trelin"},
                                           SLabelled{"TrailingDot", "org.trelin."}, SLabelled{"Colon", ":"},
                                           SLabelled{"Number", "1.1"}, SLabelled{"Slash", "org.trelin/x"},
                                           SLabelled{"InvalidUtf8", "org.trelin.\xff\xfe"},
                                           SLabelled{"NewLine", "org.tre\nlin"}),
                         labelOf);
