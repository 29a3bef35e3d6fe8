#include "E2eTest.h"

#include <limits>

namespace
{

class TypedCalls : public CE2eTest
{
protected:
    CServerProcess m_serverProcess{m_name};
    CTestClient m_client{m_name};
    CProbeProxy m_probe{m_client.Get()};
};

} // namespace

TEST_F(TypedCalls, CarryIntegers)
{
    for (int const value : {0, 1, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
    {
        EXPECT_EQ(value, m_probe.EchoInt.TryCall(value));
    }
}

TEST_F(TypedCalls, CarryUnsignedIntegers)
{
    for (unsigned int const value : {0u, 1u, std::numeric_limits<unsigned int>::max()})
    {
        EXPECT_EQ(value, m_probe.EchoUnsigned.TryCall(value));
    }
}

TEST_F(TypedCalls, CarryBooleans)
{
    EXPECT_EQ(std::optional<bool>(true), m_probe.EchoBool.TryCall(true));
    EXPECT_EQ(std::optional<bool>(false), m_probe.EchoBool.TryCall(false));
}

TEST_F(TypedCalls, CarryFloatingPointNumbersToTheLastBit)
{
    for (float const value : {0.0f, -0.1f, std::numeric_limits<float>::max(), std::numeric_limits<float>::denorm_min(),
                              std::numeric_limits<float>::infinity()})
    {
        EXPECT_EQ(value, m_probe.EchoFloat.TryCall(value));
    }
    for (double const value : {0.0, 0.1, std::numeric_limits<double>::lowest(),
                               std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::infinity()})
    {
        EXPECT_EQ(value, m_probe.EchoDouble.TryCall(value));
    }
    auto const nan = m_probe.EchoDouble.TryCall(std::numeric_limits<double>::quiet_NaN());
    ASSERT_TRUE(nan);
    EXPECT_TRUE(*nan != *nan);
}

TEST_F(TypedCalls, CarryStrings)
{
    for (std::string const value : {"", "text", "gr\xc3\xbc\xc3\x9f\x65", "line\nline\ttab"})
    {
        EXPECT_EQ(value, m_probe.EchoString.TryCall(value));
    }
}

TEST_F(TypedCalls, CarryCStrings)
{
    for (char const* const value : {"", "text", "\xe2\x82\xac"})
    {
        auto const fromCCString = m_probe.EchoCCString.TryCall(nelo_rpc::types::CCString(value));
        auto const fromChars = m_probe.EchoChars.TryCall(value);
        ASSERT_TRUE(fromCCString);
        ASSERT_TRUE(fromChars);
        EXPECT_STREQ(value, fromCCString->Get());
        EXPECT_STREQ(value, fromChars->Get());
    }
}

TEST_F(TypedCalls, CarryEnumerations)
{
    for (EColour const value : {EColour::Red, EColour::Green, EColour::Blue})
    {
        EXPECT_EQ(value, m_probe.EchoColour.TryCall(value));
    }
}

TEST_F(TypedCalls, CarryBytes)
{
    Bytes everyByte;
    for (int i = 0; i < 256; ++i)
    {
        everyByte.push_back(static_cast<std::uint8_t>(i));
    }
    for (Bytes const& value : {Bytes{}, Bytes{0}, everyByte, Bytes(1u << 20, 0xa5)})
    {
        EXPECT_EQ(value, m_probe.EchoBytes.TryCall(value));
    }
}

TEST_F(TypedCalls, CarryManyArgumentsInTheirOrder)
{
    Bytes const bytes{0, 255, 7};
    auto const joined = m_probe.Join.TryCall(-5, 4000000000u, true, 1.5f, -0.1, "text", "chars", EColour::Blue, bytes);

    EXPECT_EQ(join(-5, 4000000000u, true, 1.5f, -0.1, "text", "chars", EColour::Blue, bytes), joined);
}

TEST_F(TypedCalls, WithoutAResultAnswerTrue)
{
    EXPECT_EQ(std::optional<bool>(true), m_probe.Nothing.TryCall());
    m_probe.Nothing();
}

TEST_F(TypedCalls, OfAnUnknownFunctionGiveNoResult)
{
    EXPECT_EQ(std::nullopt, m_probe.IsNotRegistered.TryCall());
    EXPECT_EQ(0, m_probe.IsNotRegistered());
    EXPECT_EQ(3, m_probe.EchoInt(3)) << "and do no harm";
}

TEST_F(TypedCalls, TellAResultFromNone)
{
    EXPECT_EQ(std::optional<int>(0), m_probe.EchoInt.TryCall(0));
    m_serverProcess->Kill();
    EXPECT_EQ(std::nullopt, m_probe.EchoInt.TryCall(0));
    EXPECT_EQ(0, m_probe.EchoInt(5)) << "the default of the type";
    EXPECT_EQ("", m_probe.EchoString("x"));
    EXPECT_STREQ("", m_probe.EchoCCString(nelo_rpc::types::CCString("x")).Get());
}

TEST_F(TypedCalls, CarryCallbacksOfEveryType)
{
    Bytes const bytes{1, 2, 3};
    CInbox<std::string> received;
    m_probe.OnEverything.Subscribe([&](int i, unsigned int u, bool b, float f, double d, std::string const& s,
                                       char const* c, EColour e,
                                       Bytes const& data) { received.Put(join(i, u, b, f, d, s, c, e, data)); });
    m_probe.SendEverything(7, 4000000000u, false, -2.5f, 1e300, "text", "chars", EColour::Red, bytes);

    ASSERT_TRUE(received.WaitForCount(1));
    EXPECT_EQ(join(7, 4000000000u, false, -2.5f, 1e300, "text", "chars", EColour::Red, bytes), received.All().front());
    m_probe.UnsetCallbacks();
}

TEST_F(TypedCalls, OfSeveralThreadsGetEachTheirOwnResult)
{
    std::vector<std::future<bool>> threads;
    for (int t = 0; t < 6; ++t)
    {
        threads.push_back(std::async(std::launch::async, [this, t] {
            bool right = true;
            for (int i = 0; i < 100; ++i)
            {
                int const value = t * 1000 + i;
                right = right && m_probe.EchoInt.TryCall(value) == value;
            }
            return right;
        }));
    }
    for (auto& thread : threads)
    {
        ASSERT_TRUE(isReady(thread, seconds(60)));
        EXPECT_TRUE(thread.get());
    }
}
