#include "BusTest.h"

namespace
{

/// Text that D-Bus does not carry, as a value of the class named.
struct SText
{
    char const* label;
    std::string text;
    bool asCString;
};
void PrintTo(SText const& text, std::ostream* out)
{
    *out << text.label;
}

class CDbusPortRefusedText : public CBusTest, public ::testing::WithParamInterface<SText>
{
protected:
    static CValueList Refused()
    {
        CValueList list = listOf(1);
        list[1] = GetParam().asCString ? nelo_rpc::types::makeValue<char const*>(GetParam().text.c_str())
                                       : nelo_rpc::types::makeValue<std::string>(GetParam().text);
        return list;
    }

    /// The first call brings the lines of a server's start with it: afterwards each error line is the test's.
    void SetUp() override { ASSERT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0))); }

    /// What was logged as an error besides the missing reply itself.
    static int CountReasons(CLogCapture const& log)
    {
        return countLinesOf(log, ELevel::Error) -
               countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply");
    }

    CEchoPort m_echo{m_server};
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
};

} // namespace

TEST_P(CDbusPortRefusedText, FailsACallBeforeItIsSent)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(Refused(), 0).empty());
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    EXPECT_EQ(1, log.Count("CDbusPort::OnDbusMessage received function call")) << "the refused call was never sent";
}

TEST_P(CDbusPortRefusedText, FailsACallbackBeforeItIsSent)
{
    CRawPeer peer;
    int const id = m_echo.Get().AddConnection(peer.GetUniqueName());
    CLogCapture log;

    EXPECT_FALSE(m_echo.Get().SendCallback(Refused(), id));
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_TRUE(m_echo.Get().SendCallback(listOf(5), id));
    MessagePtr const signal = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, signal);
    EXPECT_EQ("0 0 5", describeBody(signal.get())) << "the refused one was never sent";
}

TEST_P(CDbusPortRefusedText, TurnsAResultIntoAnErrorAnswer)
{
    CValueList const refused = Refused();
    m_echo.Get().SetFunctionCallListener(
        [refused](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { reply(refused); });
    CRawPeer peer;
    CLogCapture log;
    MessagePtr const answer = peer.Call(rawCall(m_server).get());

    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_ERROR, dbus_message_get_type(answer.get()));
    EXPECT_GE(CountReasons(log), 1);
}

TEST_P(CDbusPortRefusedText, TurnsAResultIntoAFailedCall)
{
    CValueList const refused = Refused();
    m_echo.Get().SetFunctionCallListener([refused](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        reply(intOf(list) == 1 ? refused : list);
    });
    CLogCapture log;

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_LT(since(start), seconds(10)) << "an error answer, not a time-out";
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_P(CDbusPortRefusedText, MakesSendFunctionResultFalse)
{
    CRawPeer peer;
    MessagePtr const call = rawCall(m_server);
    dbus_message_set_sender(call.get(), peer.GetUniqueName().c_str());
    dbus_message_set_serial(call.get(), 1);

    EXPECT_FALSE(m_echo.Get().SendFunctionResult(call.get(), Refused()));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CDbusPortRefusedText,
    ::testing::Values(SText{"EmbeddedNul", std::string("be\0fore", 7), false},
                      SText{"TrailingNul", std::string("end\0", 4), false}, SText{"LoneByte", "a\xff", false},
                      SText{"CutSequence", "a\xe2\x82", false}, SText{"Overlong", "\xc0\xaf", false},
                      SText{"Surrogate", "\xed\xa0\x80", false}, SText{"BeyondUnicode", "\xf4\x90\x80\x80", false},
                      SText{"LoneByteInACString", "a\xff", true}, SText{"CutSequenceInACString", "\xe2\x82", true}),
    [](auto const& test) { return std::string(test.param.label); });

namespace
{

class CDbusPortText : public CBusTest
{
};

} // namespace

TEST_F(CDbusPortText, PassesAllOfUnicodeUnchanged)
{
    CEchoPort echo(m_server);
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    for (std::string const text : {"", "plain", "\x01\x7f\t\n", "h\xc3\xa9llo", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                                   "\xef\xbf\xbf", "\xf4\x8f\xbf\xbf"})
    {
        CValueList const result = port.CallFunction(listOf(text, nelo_rpc::types::CCString(text.c_str())), 0);
        ASSERT_EQ(2u, result.size()) << text;
        EXPECT_EQ(text, nelo_rpc::types::unpackAt<std::string>(result, 0));
        EXPECT_EQ(text, nelo_rpc::types::unpackAt<char const*>(result, 1));
    }
}

TEST_F(CDbusPortText, IsNotLookedAtInBinaryValues)
{
    CEchoPort echo(m_server);
    CDbusPort port(m_client.c_str(), m_server.c_str(), false);
    std::vector<std::uint8_t> const bytes{0x00, 0xff, 0xc0, 0x00};

    CValueList const result = port.CallFunction(listOf(bytes), 0);
    ASSERT_EQ(1u, result.size());
    EXPECT_EQ(bytes, nelo_rpc::types::unpackAt<std::vector<std::uint8_t>>(result, 0));
}
