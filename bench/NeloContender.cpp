#include "Contender.h"
#include "InFlight.h"

#include "../src/SystemLog.h"

#include <nelo_rpc/nelo_rpc.h>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

/// Variants: "delivery" has a CCallbackDelivery, "plain" has none, "logged" is "delivery" with every line written to the
/// log socket that BENCH_LOG_SOCKET names.
namespace bench
{

namespace
{

class CEcho
{
public:
    ~CEcho()
    {
        if (m_publisher.joinable())
        {
            m_publisher.join();
        }
    }

    int EchoInt(int value) { return value; }
    std::string EchoText(std::string const& text) { return text; }
    Bytes EchoBytes(Bytes const& bytes) { return bytes; }

    void Publish(int count)
    {
        m_publisher = std::thread([this, count] {
            for (int i = 0; i < count; ++i)
            {
                OnTick.Send(i);
            }
        });
    }

    nelo_rpc::CCallbackSender<int> OnTick;

private:
    std::thread m_publisher;
};

class CEchoProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CEchoProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Echo") {}

    nelo_rpc::CProxyFunction<int(int)> EchoInt{*this, "EchoInt"};
    nelo_rpc::CProxyFunction<std::string(std::string)> EchoText{*this, "EchoText"};
    nelo_rpc::CProxyFunction<Bytes(Bytes)> EchoBytes{*this, "EchoBytes"};
    nelo_rpc::CProxyFunction<void(int)> Publish{*this, "Publish"};
    nelo_rpc::CProxyCallback<int> OnTick{*this, "OnTick"};
};

void setUpLog(std::string const& variant)
{
    if (variant != "logged")
    {
        nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    }
    if (char const* const path = std::getenv("BENCH_LOG_SOCKET"))
    {
        nelo_rpc::log::SetSystemLogPath(path);
    }
}

template <class T>
T required(std::optional<T> result)
{
    if (!result)
    {
        fail("a call without a result");
    }
    return std::move(*result);
}

void requireActor(CEchoProxy& proxy)
{
    if (proxy.GetId() == 0)
    {
        fail("no actor");
    }
}

/// What is recommended, but without a limit of actors: some measurements are about a client that has 100,000.
nelo_rpc::SHostOptions hostOptions()
{
    nelo_rpc::SHostOptions options = nelo_rpc::SHostOptions::Recommended();
    options.maxActors = 0;
    return options;
}

class CNeloClient : public IClient
{
public:
    CNeloClient(std::string const& variant, std::string const& server)
        : m_port("org.example.bench_client", server.c_str(), false, nelo_rpc::SPortOptions::Recommended()),
          m_client(m_port)
    {
        if (variant != "plain")
        {
            m_delivery.emplace(m_port);
        }
        m_proxy.emplace(m_client);
    }

    int EchoInt(int value) override { return required(m_proxy->EchoInt.TryCall(value)); }
    std::string EchoText(std::string const& text) override { return required(m_proxy->EchoText.TryCall(text)); }
    Bytes EchoBytes(Bytes const& bytes) override { return required(m_proxy->EchoBytes.TryCall(bytes)); }

    void ReceiveCallbacks(int count) override
    {
        std::mutex mutex;
        std::condition_variable last;
        int received = 0;
        m_proxy->OnTick.Subscribe([&](int const&) {
            std::lock_guard<std::mutex> const lock(mutex);
            if (++received == count)
            {
                last.notify_one();
            }
        });
        required(m_proxy->Publish.TryCall(count));
        {
            std::unique_lock<std::mutex> lock(mutex);
            last.wait(lock, [&] { return received == count; });
        }
        m_proxy->OnTick.Subscribe([](int const&) {});
    }

    /// With "plain" nobody reads the port: each call would be made inside the handler of the one before.
    void EchoInFlight(int calls, int window) override
    {
        CInFlight inFlight(calls, window, [this](CInFlight::SPlace& place) {
            m_proxy->EchoInt.CallAsync(
                [&place](std::optional<int> answer) { place.calls.Answer(place, required(answer)); }, place.value);
        });
        inFlight.Start();
        inFlight.Wait();
    }

    void MakeAndDestroy() override
    {
        CEchoProxy proxy(m_client);
        requireActor(proxy);
    }

    void Populate(int objects) override
    {
        for (; objects > 0; --objects)
        {
            m_others.push_back(std::make_unique<CEchoProxy>(m_client));
            requireActor(*m_others.back());
        }
    }

    void Depopulate() override { m_others.clear(); }

private:
    nelo_rpc::CDbusPort m_port;
    nelo_rpc::CRpcClient m_client;
    std::optional<nelo_rpc::CCallbackDelivery> m_delivery;
    std::optional<CEchoProxy> m_proxy;
    std::vector<std::unique_ptr<CEchoProxy>> m_others;
};

} // namespace

std::unique_ptr<IClient> makeClient(std::string const& variant, std::string const& server)
{
    setUpLog(variant);
    return std::make_unique<CNeloClient>(variant, server);
}

void serve(std::string const& variant, std::string const& name, std::function<void()> const& ready)
{
    setUpLog(variant);
    nelo_rpc::CDbusPort port(name.c_str(), true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcHost const host(port, hostOptions(), [](nelo_rpc::CRpcHost& types) {
        types.RegisterActorType<CEcho>("Echo", [](nelo_rpc::CActor& actor, CEcho& echo) {
            actor.AddFunction("EchoInt", echo, &CEcho::EchoInt);
            actor.AddFunction("EchoText", echo, &CEcho::EchoText);
            actor.AddFunction("EchoBytes", echo, &CEcho::EchoBytes);
            actor.AddFunction("Publish", echo, &CEcho::Publish);
            actor.AddCallback("OnTick", echo.OnTick);
        });
    });
    ready();
    for (;;)
    {
        ::pause();
    }
}

} // namespace bench
