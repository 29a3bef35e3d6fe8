#include "Contender.h"
#include "InFlight.h"

#include <sdbus-c++/sdbus-c++.h>

#include <condition_variable>
#include <mutex>
#include <thread>

/// sdbus-c++ through its convenience layer. The client's connection has an event loop of its own, as its signals need.
namespace bench
{

namespace
{

constexpr char const* PATH = "/org/example/bench";
constexpr char const* INTERFACE = "org.example.Bench";

class CSdbusCppClient : public IClient
{
public:
    explicit CSdbusCppClient(std::string const& server)
        : m_connection(sdbus::createSystemBusConnection()), m_proxy(sdbus::createProxy(*m_connection, server, PATH))
    {
        m_proxy->uponSignal("Tick").onInterface(INTERFACE).call([this](int) { OnTick(); });
        m_proxy->finishRegistration();
        m_connection->enterEventLoopAsync();
    }

    int EchoInt(int value) override { return Call("EchoInt", value); }
    std::string EchoText(std::string const& text) override { return Call("EchoText", text); }
    Bytes EchoBytes(Bytes const& bytes) override { return Call("EchoBytes", bytes); }

    void ReceiveCallbacks(int count) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_expected = count;
        lock.unlock();
        m_proxy->callMethod("Publish").onInterface(INTERFACE).withArguments(count);
        lock.lock();
        m_last.wait(lock, [this] { return m_expected == 0; });
    }

    void EchoInFlight(int calls, int window) override
    {
        CInFlight inFlight(calls, window, [this](CInFlight::SPlace& place) {
            m_proxy->callMethodAsync("EchoInt")
                .onInterface(INTERFACE)
                .withArguments(place.value)
                .uponReplyInvoke([&place](sdbus::Error const* error, int answer) {
                    if (error != nullptr)
                    {
                        fail(error->what());
                    }
                    place.calls.Answer(place, answer);
                });
        });
        inFlight.Start();
        inFlight.Wait();
    }

private:
    template <class T>
    T Call(char const* function, T const& argument)
    {
        T result;
        m_proxy->callMethod(function).onInterface(INTERFACE).withArguments(argument).storeResultsTo(result);
        return result;
    }

    void OnTick()
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (--m_expected == 0)
        {
            m_last.notify_one();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_last;
    int m_expected = 0;
    std::unique_ptr<sdbus::IConnection> m_connection;
    std::unique_ptr<sdbus::IProxy> m_proxy;
};

} // namespace

std::unique_ptr<IClient> makeClient(std::string const& /*variant*/, std::string const& server)
{
    return std::make_unique<CSdbusCppClient>(server);
}

void serve(std::string const& /*variant*/, std::string const& name, std::function<void()> const& ready)
{
    auto const connection = sdbus::createSystemBusConnection();
    auto const object = sdbus::createObject(*connection, PATH);
    std::thread publisher;
    object->registerMethod("EchoInt").onInterface(INTERFACE).implementedAs([](int value) { return value; });
    object->registerMethod("EchoText").onInterface(INTERFACE).implementedAs([](std::string text) { return text; });
    object->registerMethod("EchoBytes").onInterface(INTERFACE).implementedAs([](Bytes bytes) { return bytes; });
    object->registerMethod("Publish").onInterface(INTERFACE).implementedAs([&](int count) {
        publisher = std::thread([&object, count] {
            for (int i = 0; i < count; ++i)
            {
                object->emitSignal("Tick").onInterface(INTERFACE).withArguments(i);
            }
        });
    });
    object->registerSignal("Tick").onInterface(INTERFACE).withParameters<int>();
    object->finishRegistration();
    connection->requestName(name);
    ready();
    connection->enterEventLoop();
    fail("the bus has gone");
}

} // namespace bench
