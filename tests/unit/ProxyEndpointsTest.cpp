#include "CFakePort.h"
#include "ExpectAbort.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

using namespace nelo_rpc;

namespace
{
enum class EMode : int
{
    Off = 0,
    Heat = 3,
    Cool = -2
};

/// A type of an application's own, which travels as a text.
struct SPoint
{
    int x = 0;
    int y = 0;
};

bool operator==(SPoint const& a, SPoint const& b)
{
    return a.x == b.x && a.y == b.y;
}

/// A proxy as an application writes it.
class CThermostatProxy : public CActorProxy
{
public:
    explicit CThermostatProxy(CRpcClient& client) : CActorProxy(&client, "Thermostat", 12) {}

    CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    CProxyFunction<std::string(int)> Describe{*this, "Describe"};
    CProxyFunction<int()> Count{*this, "Count"};
    CProxyFunction<void(std::string const&)> Name{*this, "Name"};
    CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
    CProxyCallback<> OnEmpty{*this, "OnEmpty"};
};
} // namespace

template <>
struct nelo_rpc::types::SValueTraits<SPoint>
{
    static std::shared_ptr<CValue> Pack(SPoint const& point)
    {
        return packValue(std::to_string(point.x) + "," + std::to_string(point.y));
    }

    static SPoint Unpack(CValue& value)
    {
        auto const text = unpackValue<std::string>(value);
        auto const comma = text.find(',');
        return {std::stoi(text.substr(0, comma)), std::stoi(text.substr(comma + 1))};
    }
};

class ProxyEndpoints : public ::testing::Test
{
protected:
    std::string LastCall() const { return types::toString(m_port.Calls().back().list); }

    /// Lets the server answer with the first argument, so that a value makes the way there and back.
    template <class T>
    T Echo(T const& value)
    {
        m_port.OnCallFunction([](types::CValueList const& call, int) {
            types::CValueList reply;
            reply[0] = call.at(0);
            return reply;
        });
        T const result = CProxyFunction<T(T)>(m_thermostat, "Echo")(value);
        m_port.OnCallFunction({}); // the proxy's end expects an answer of another type
        return result;
    }

    CFakePort m_port;
    CRpcClient m_client{m_port};
    CThermostatProxy m_thermostat{m_client};
};

using ProxyEndpointsDeathTest = ProxyEndpoints;

// Functions

TEST_F(ProxyEndpoints, AFunctionPutsItsArgumentsAtZeroOneTwoAndReadsItsResultAtZero)
{
    m_port.AnswerNext(listOf(std::string("warm")));
    CProxyFunction<std::string(int, std::string, bool)> const describe(m_thermostat, "DescribeAll");

    EXPECT_EQ("warm", describe(1, "two", true));

    EXPECT_EQ(types::toString(callOf(12, "Thermostat", "DescribeAll", 1, std::string("two"), true)), LastCall());
    EXPECT_EQ(0, m_port.Calls().back().connectionId);
}

TEST_F(ProxyEndpoints, AFunctionWithoutArgumentsSendsAListWithTheReservedEntriesOnly)
{
    m_port.AnswerNext(listOf(4));

    EXPECT_EQ(4, m_thermostat.Count());

    EXPECT_EQ(types::toString(callOf(12, "Thermostat", "Count")), LastCall());
}

TEST_F(ProxyEndpoints, AFunctionWithoutAReplyGivesTheDefaultOfItsResult)
{
    EXPECT_FALSE(m_thermostat.SetTarget(21.5));
    EXPECT_EQ("", m_thermostat.Describe(1));
    EXPECT_EQ(0, m_thermostat.Count());
    EXPECT_EQ(EMode::Off, CProxyFunction<EMode()>(m_thermostat, "Mode")());
    EXPECT_STREQ("", CProxyFunction<types::CCString()>(m_thermostat, "Text")().Get());
    EXPECT_EQ(5U, m_port.Calls().size());
}

TEST_F(ProxyEndpoints, AReplyWithoutAnEntryAtZeroIsNoReply)
{
    types::CValueList reply;
    reply[1] = types::makeValue<int>(5);
    m_port.AnswerNext(reply);
    m_port.AnswerNext(reply);

    EXPECT_EQ(0, m_thermostat.Count());
    EXPECT_EQ(std::nullopt, m_thermostat.Count.TryCall());
}

TEST_F(ProxyEndpoints, TryCallTellsAResultFromNoReply)
{
    EXPECT_EQ(std::nullopt, m_thermostat.SetTarget.TryCall(21.5));

    m_port.AnswerNext(listOf(false));
    EXPECT_EQ(std::make_optional(false), m_thermostat.SetTarget.TryCall(21.5));

    m_port.AnswerNext(listOf(std::string()));
    EXPECT_EQ(std::make_optional(std::string()), m_thermostat.Describe.TryCall(1));
}

TEST_F(ProxyEndpoints, AFunctionWithoutAResultReturnsNothingAndItsTryCallTellsWhetherItWasAnswered)
{
    static_assert(std::is_void_v<decltype(m_thermostat.Name("x"))>);
    static_assert(std::is_same_v<std::optional<bool>, decltype(m_thermostat.Name.TryCall("x"))>);

    m_thermostat.Name("x");
    EXPECT_EQ(types::toString(callOf(12, "Thermostat", "Name", std::string("x"))), LastCall());

    EXPECT_EQ(std::nullopt, m_thermostat.Name.TryCall("x"));
    m_port.AnswerNext(listOf(true));
    EXPECT_EQ(std::make_optional(true), m_thermostat.Name.TryCall("x"));
}

TEST_F(ProxyEndpoints, EveryTypeThatCanTravelMakesTheWayThereAndBack)
{
    EXPECT_EQ(std::numeric_limits<int>::min(), Echo(std::numeric_limits<int>::min()));
    EXPECT_EQ(std::numeric_limits<unsigned int>::max(), Echo(std::numeric_limits<unsigned int>::max()));
    EXPECT_TRUE(Echo(true));
    EXPECT_FALSE(Echo(false));
    EXPECT_EQ(1.25F, Echo(1.25F));
    EXPECT_EQ(-0.1, Echo(-0.1));
    EXPECT_EQ("a text", Echo(std::string("a text")));
    EXPECT_STREQ("a c string", Echo(types::CCString("a c string")).Get());
    EXPECT_EQ(EMode::Cool, Echo(EMode::Cool));
    EXPECT_EQ((std::vector<std::uint8_t>{0, 255, 7}), Echo(std::vector<std::uint8_t>{0, 255, 7}));
    EXPECT_TRUE(Echo(std::vector<std::uint8_t>{}).empty());
}

TEST_F(ProxyEndpoints, ACStringMayBeAnArgument)
{
    CProxyFunction<void(char const*)>(m_thermostat, "Say")("hello");
    EXPECT_EQ("{TYPE_NAME = (" + types::makeValue<std::string>("Thermostat")->ToString() +
                  ") | ACTOR_ID = (CTypedValue<int> = 12) | METHOD_NAME = (" +
                  types::makeValue<std::string>("Say")->ToString() +
                  ") | 0 = (CTypedValue<nelo_rpc::types::CCString> = hello) | }",
              LastCall());
}

TEST_F(ProxyEndpoints, AnApplicationsOwnTypeTravelsAsItsTraitsSay)
{
    EXPECT_EQ((SPoint{3, -4}), Echo(SPoint{3, -4}));
    EXPECT_EQ(types::toString(callOf(12, "Thermostat", "Echo", std::string("3,-4"))), LastCall());
}

TEST_F(ProxyEndpointsDeathTest, AResultOfAnotherTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            m_port.AnswerNext(listOf(std::string("4")));
            m_thermostat.Count();
        },
        "wrong type in CValue");
}

TEST_F(ProxyEndpointsDeathTest, AResultOfAnotherBinaryKindLogsAndAborts)
{
    EXPECT_ABORT(
        {
            m_port.AnswerNext(listOf(4U));
            CProxyFunction<EMode()>(m_thermostat, "Mode")();
        },
        "wrong type in CValue");
}

TEST_F(ProxyEndpointsDeathTest, TryCallToleratesNoResultOfAnotherTypeEither)
{
    EXPECT_ABORT(
        {
            m_port.AnswerNext(listOf(4));
            m_thermostat.Describe.TryCall(1);
        },
        "wrong type in CValue");
}

// Callbacks

TEST_F(ProxyEndpoints, ACallbacksHandlerGetsThePayloadFromZeroOneTwo)
{
    double celsius = 0;
    std::string why;
    m_thermostat.OnChanged.Subscribe([&](double value, std::string const& reason) {
        celsius = value;
        why = reason;
    });

    m_port.Callback(callbackOf(12, "OnChanged", 21.5, std::string("sun")));

    EXPECT_EQ(21.5, celsius);
    EXPECT_EQ("sun", why);
}

TEST_F(ProxyEndpoints, AHandlerWithoutArgumentsIgnoresWhatThePayloadHolds)
{
    int handled = 0;
    m_thermostat.OnEmpty.Subscribe([&] { ++handled; });

    m_port.Callback(callbackOf(12, "OnEmpty"));
    m_port.Callback(callbackOf(12, "OnEmpty", 1, 2));

    EXPECT_EQ(2, handled);
}

TEST_F(ProxyEndpoints, SubscribingAgainReplacesTheHandler)
{
    int first = 0;
    int second = 0;
    m_thermostat.OnEmpty.Subscribe([&] { ++first; });
    m_thermostat.OnEmpty.Subscribe([&] { ++second; });

    m_port.Callback(callbackOf(12, "OnEmpty"));

    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
}

TEST_F(ProxyEndpoints, ASubscriptionOutlivesItsEndpoint)
{
    int handled = 0;
    CProxyCallback<int>(m_thermostat, "OnPassing").Subscribe([&](int value) { handled += value; });

    m_port.Callback(callbackOf(12, "OnPassing", 4));

    EXPECT_EQ(4, handled);
}

TEST_F(ProxyEndpoints, AHandlerMayCallItsProxysFunctions)
{
    int count = 0;
    m_thermostat.OnEmpty.Subscribe([&] { count = m_thermostat.Count(); });
    m_port.AnswerNext(listOf(8));

    m_port.Callback(callbackOf(12, "OnEmpty"));

    EXPECT_EQ(8, count);
}

TEST_F(ProxyEndpointsDeathTest, APayloadOfAnotherTypeLogsAndAborts)
{
    m_thermostat.OnChanged.Subscribe([](double, std::string const&) {});
    EXPECT_ABORT(m_port.Callback(callbackOf(12, "OnChanged", 21.5, 3)), "wrong type in CValue");
}

TEST_F(ProxyEndpointsDeathTest, AMissingPayloadLogsAndAborts)
{
    m_thermostat.OnChanged.Subscribe([](double, std::string const&) {});
    EXPECT_ABORT(m_port.Callback(callbackOf(12, "OnChanged", 21.5)), "wrong type in CValue");
}
