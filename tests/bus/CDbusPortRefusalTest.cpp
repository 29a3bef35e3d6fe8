#include "UntrustedPeers.h"

namespace
{

/// A client of a server's port that refuses each call as the test says.
class CDbusPortRefusal : public CBusTest
{
protected:
    /// The error reply to a call that is refused so.
    MessagePtr RefuseWith(std::string const& error, std::string const& cause)
    {
        m_port.SetFunctionCallListener([=](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
            reply(nelo_rpc::refusal::make(error, cause));
        });
        return m_peer.Call(rawCall(m_server).get());
    }

    CRawPeer m_peer;
    CDbusPort m_port{m_server.c_str(), true};
};

constexpr char const* FAILED = "org.freedesktop.DBus.Error.Failed";

} // namespace

TEST_F(CDbusPortRefusal, IsSentAsAnErrorReplyWithItsNameAndCause)
{
    CLogCapture log;
    MessagePtr const answer = RefuseWith(nelo_rpc::refusal::ACCESS_DENIED, "not for you");

    EXPECT_EQ(nelo_rpc::refusal::ACCESS_DENIED, errorNameOf(answer));
    EXPECT_EQ("\"not for you\"", describeBody(answer.get()));
    EXPECT_EQ(0, countErrorsAbout(log, "CDbusPort::SendFunctionResult")); // whoever refuses says so
}

TEST_F(CDbusPortRefusal, KeepsWhatElseIsInItsList)
{
    m_port.SetFunctionCallListener([](CValueList const& call, int, CRpcPort::ReplyFunction const& reply) {
        CValueList list = nelo_rpc::refusal::make(nelo_rpc::refusal::LIMITS_EXCEEDED, "too much");
        list[0] = call.begin()->second;
        reply(list);
    });
    MessagePtr const call = rawCall(m_server);
    putInt(call.get(), 0, 5);

    EXPECT_EQ("\"too much\"", describeBody(m_peer.Call(call.get()).get()));
}

TEST_F(CDbusPortRefusal, EndsACallAsFailedWithItsCause)
{
    m_port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        reply(nelo_rpc::refusal::make(nelo_rpc::refusal::UNKNOWN_METHOD, "no such function"));
    });
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    CLogCapture log;

    EXPECT_TRUE(client.CallFunction(listOf(1), 0).empty());
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Dbus error: no such function"));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_F(CDbusPortRefusal, WithANameThatTheBusDoesNotKnowFailsWithoutOne)
{
    std::string const tooLong = "org." + std::string(300, 'x');
    for (std::string const& name :
         {std::string(), std::string("bad name"), std::string("nodots"), tooLong, std::string("org.a\0b", 7)})
    {
        MessagePtr const answer = RefuseWith(name, "cause");
        EXPECT_EQ(FAILED, errorNameOf(answer)) << name;
        EXPECT_EQ("\"cause\"", describeBody(answer.get()));
    }
}

TEST_F(CDbusPortRefusal, WithATextThatCannotBeSentSaysThatItWasRefused)
{
    for (std::string const& text :
         {std::string(), std::string("caf\xe9"), std::string("a\0b", 3), std::string(40 * 1024 * 1024, 'x')})
    {
        MessagePtr const answer = RefuseWith(nelo_rpc::refusal::INVALID_ARGS, text);
        EXPECT_EQ(nelo_rpc::refusal::INVALID_ARGS, errorNameOf(answer));
        EXPECT_EQ("\"the call was refused\"", describeBody(answer.get()));
    }
}
