#include "CInbox.h"
#include "CLogCapture.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace nelo_rpc;
using std::chrono::seconds;

namespace
{

constexpr char const* SERVER = "org.example.kitchen";

enum class EHeat
{
    Low,
    High
};

/// The contract: every kind of member function that a description takes.
class IStove
{
public:
    virtual ~IStove() = default;

    virtual bool Ignite(int plate, EHeat heat) = 0;
    virtual std::string const& GetLabel() const = 0;
    virtual void SetLabel(std::string const& label) = 0;
    virtual std::vector<std::uint8_t> Read(std::uint8_t const& first) noexcept = 0;
    virtual int Count() const noexcept = 0;

    CCallbackSender<int, std::string> OnBoiling;
    CCallbackSender<> OnOff;

    static constexpr CInterface RPC{"Stove",
                                    SFunction<&IStove::Ignite>{"Ignite"},
                                    SFunction<&IStove::GetLabel>{"GetLabel"},
                                    SFunction<&IStove::SetLabel>{"Rename"},
                                    SFunction<&IStove::Count>{"Count"},
                                    SCallback<&IStove::OnBoiling>{"OnBoiling"},
                                    SCallback<&IStove::OnOff>{"OnOff"}};
};

class CStove : public IStove
{
public:
    CStove() = default;
    explicit CStove(std::string label) : m_label(std::move(label)) {}

    bool Ignite(int plate, EHeat heat) override
    {
        ++m_count;
        OnBoiling.Send(plate, heat == EHeat::High ? "high" : "low");
        OnOff.Send();
        return plate < 4;
    }
    std::string const& GetLabel() const override { return m_label; }
    void SetLabel(std::string const& label) override { m_label = label; }
    std::vector<std::uint8_t> Read(std::uint8_t const& first) noexcept override { return {first}; }
    int Count() const noexcept override { return m_count; }

private:
    std::string m_label = "plain";
    int m_count = 0;
};

/// A client that prefers named members.
class CStoveProxy : public CProxyOf<IStove>
{
public:
    using CProxyOf::CProxyOf;

    Function<&IStove::Ignite> Ignite{*this};
    Callback<&IStove::OnBoiling> OnBoiling{*this};
};

/// A host that serves stoves and a client, without a bus.
class CInterfaceTest : public ::testing::Test
{
protected:
    ~CInterfaceTest() override { m_clientPort.SetCallbackListener({}); }

    CLocalBus m_bus;
    CLocalPort m_serverPort{m_bus, SERVER, true};
    CRpcHost m_host{m_serverPort, {}, [](CRpcHost& host) { registerInterface<IStove, CStove>(host); }};
    CLocalPort m_clientPort{m_bus, "client", SERVER, false};
    CRpcClient m_client{m_clientPort};
};

TEST_F(CInterfaceTest, CallsReachTheImplementationAndBringItsResultBack)
{
    CProxyOf<IStove> stove(m_client);

    EXPECT_TRUE(stove.Call<&IStove::Ignite>(3, EHeat::Low));
    EXPECT_FALSE(stove.Call<&IStove::Ignite>(4, EHeat::Low));
    EXPECT_EQ(2, stove.Call<&IStove::Count>());
    EXPECT_EQ("plain", stove.Call<&IStove::GetLabel>());
}

TEST_F(CInterfaceTest, FunctionsWithoutAResultCanBeCalledToo)
{
    CProxyOf<IStove> stove(m_client);

    stove.Call<&IStove::SetLabel>("blue");
    EXPECT_EQ("blue", stove.Call<&IStove::GetLabel>());
    EXPECT_EQ(std::optional<bool>(true), stove.TryCall<&IStove::SetLabel>(std::string("green")));
    EXPECT_EQ(std::optional<std::string>("green"), stove.TryCall<&IStove::GetLabel>());
}

TEST_F(CInterfaceTest, CallbacksReachTheSubscribedHandlers)
{
    CInbox<std::string> boiling;
    CInbox<bool> off;
    CProxyOf<IStove> stove(m_client);
    stove.Subscribe<&IStove::OnBoiling>(
        [&](int plate, std::string const& heat) { boiling.Put(std::to_string(plate) + " " + heat); });
    stove.Subscribe<&IStove::OnOff>([&] { off.Put(true); });

    stove.Call<&IStove::Ignite>(2, EHeat::High);

    EXPECT_TRUE(off.WaitForCount(1));
    EXPECT_EQ(std::vector<std::string>{"2 high"}, boiling.All());
}

TEST_F(CInterfaceTest, MembersOfADerivedProxyTakeNamesAndTypesFromTheInterface)
{
    CInbox<int> plates;
    CStoveProxy stove(m_client);
    stove.OnBoiling.Subscribe([&](int plate, std::string const&) { plates.Put(plate); });

    EXPECT_EQ(std::optional<bool>(true), stove.Ignite.TryCall(1, EHeat::Low));

    EXPECT_TRUE(plates.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{1}, plates.All());
}

TEST_F(CInterfaceTest, NamesOfTheDescriptionAreThoseThatTravel)
{
    CProxyOf<IStove> stove(m_client);
    CActorProxy plain(&m_client, "Stove");
    CProxyFunction<bool(std::string)> const rename(plain, "Rename");
    CProxyFunction<std::string()> const getLabel(plain, "GetLabel");

    EXPECT_EQ(std::optional<bool>(true), rename.TryCall("red"));
    EXPECT_EQ(std::optional<std::string>("red"), getLabel.TryCall());
    EXPECT_EQ("plain", stove.Call<&IStove::GetLabel>());
}

TEST_F(CInterfaceTest, AProxyCanAttachToAnActorThatExists)
{
    CProxyOf<IStove> made(m_client);
    made.Call<&IStove::SetLabel>("mine");
    {
        CProxyOf<IStove> attached(m_client, made.GetId());
        EXPECT_EQ(made.GetId(), attached.GetId());
        EXPECT_EQ("mine", attached.Call<&IStove::GetLabel>());
    }
    EXPECT_EQ("plain", made.Call<&IStove::GetLabel>())
        << "the attached proxy has destroyed the actor, a call remakes it";
}

TEST_F(CInterfaceTest, AFactoryMakesTheObjects)
{
    registerInterface<IStove, CStove>(m_host, [] { return std::make_unique<CStove>("made to order"); });

    EXPECT_EQ("made to order", CProxyOf<IStove>(m_client).Call<&IStove::GetLabel>());
}

TEST_F(CInterfaceTest, AFactoryMayChooseTheImplementation)
{
    registerInterface<IStove, IStove>(
        m_host, []() -> std::unique_ptr<IStove> { return std::make_unique<CStove>("behind the interface"); });

    EXPECT_EQ("behind the interface", CProxyOf<IStove>(m_client).Call<&IStove::GetLabel>());
}

TEST_F(CInterfaceTest, ACallWithoutAReplyGivesTheDefaultAndNothing)
{
    CLogCapture const log;
    CLocalPort nobodysPort(m_bus, "lonely", "org.example.nobody", false);
    CRpcClient lonely(nobodysPort);
    CProxyOf<IStove> stove(lonely);

    EXPECT_EQ(0, stove.GetId());
    EXPECT_FALSE(stove.Call<&IStove::Ignite>(1, EHeat::Low));
    EXPECT_EQ("", stove.Call<&IStove::GetLabel>());
    EXPECT_EQ(std::nullopt, stove.TryCall<&IStove::Count>());
    nobodysPort.SetCallbackListener({});
}

TEST(CInterface, KnowsWhatItDescribes)
{
    EXPECT_STREQ("Stove", IStove::RPC.GetTypeName());
    EXPECT_TRUE((IStove::RPC.Has<SFunction<&IStove::Count>>()));
    EXPECT_FALSE((IStove::RPC.Has<SFunction<&IStove::Read>>()));
    EXPECT_STREQ("Rename", (IStove::RPC.GetNameOf<SFunction<&IStove::SetLabel>>()));

    std::vector<std::string> names;
    IStove::RPC.ForEach([&](auto const& member) { names.emplace_back(member.name); });
    EXPECT_EQ((std::vector<std::string>{"Ignite", "GetLabel", "Rename", "Count", "OnBoiling", "OnOff"}), names);
}

TEST(CInterface, IsUnambiguousUnlessANameIsMissingTwiceThereOrReserved)
{
    using Count = SFunction<&IStove::Count>;
    using Label = SFunction<&IStove::GetLabel>;
    using Off = SCallback<&IStove::OnOff>;

    EXPECT_TRUE((CInterface("Stove", Count{"Count"}, Label{"Label"}, Off{"OnOff"}).IsUnambiguous()));
    EXPECT_TRUE((CInterface("Stove", Count{"Same"}, Off{"Same"}).IsUnambiguous())) << "one is called, one is sent";

    EXPECT_FALSE((CInterface("", Count{"Count"}).IsUnambiguous()));
    EXPECT_FALSE((CInterface("CClientConnection", Count{"Count"}).IsUnambiguous()));
    EXPECT_FALSE((CInterface("Stove", Count{""}).IsUnambiguous()));
    EXPECT_FALSE((CInterface("Stove", Count{"Same"}, Label{"Same"}).IsUnambiguous()));
    EXPECT_FALSE((CInterface("Stove", Off{"OnRecreate"}).IsUnambiguous()));
}

} // namespace
