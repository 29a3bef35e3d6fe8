#include "Contender.h"
#include "InFlight.h"

#include <systemd/sd-bus.h>

#include <cstring>

/// The bus library of systemd: methods with native arguments, server and client with one thread each.
namespace bench
{

namespace
{

constexpr char const* PATH = "/org/example/bench";
constexpr char const* INTERFACE = "org.example.Bench";

/// sd-bus refuses to queue more messages than this.
constexpr int FLUSH_AFTER = 500;

void require(int result, char const* what)
{
    if (result < 0)
    {
        fail(std::string(what) + ": " + std::strerror(-result));
    }
}

sd_bus* connectToBus()
{
    sd_bus* bus = nullptr;
    require(sd_bus_open_system(&bus), "no bus");
    return bus;
}

int echoInt(sd_bus_message* call, void*, sd_bus_error*)
{
    int value = 0;
    require(sd_bus_message_read(call, "i", &value), "no argument");
    return sd_bus_reply_method_return(call, "i", value);
}

int echoText(sd_bus_message* call, void*, sd_bus_error*)
{
    char const* text = nullptr;
    require(sd_bus_message_read(call, "s", &text), "no argument");
    return sd_bus_reply_method_return(call, "s", text);
}

int echoBytes(sd_bus_message* call, void*, sd_bus_error*)
{
    void const* data = nullptr;
    std::size_t size = 0;
    require(sd_bus_message_read_array(call, 'y', &data, &size), "no argument");
    sd_bus_message* reply = nullptr;
    require(sd_bus_message_new_method_return(call, &reply), "no reply");
    require(sd_bus_message_append_array(reply, 'y', data, size), "no reply");
    int const sent = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return sent;
}

int publish(sd_bus_message* call, void*, sd_bus_error*)
{
    int count = 0;
    require(sd_bus_message_read(call, "i", &count), "no argument");
    int const replied = sd_bus_reply_method_return(call, "");
    sd_bus* const bus = sd_bus_message_get_bus(call);
    for (int i = 0; i < count; ++i)
    {
        sd_bus_message* signal = nullptr;
        require(sd_bus_message_new_signal(bus, &signal, PATH, INTERFACE, "Tick"), "no signal");
        require(sd_bus_message_set_destination(signal, sd_bus_message_get_sender(call)), "no receiver");
        require(sd_bus_message_append(signal, "i", i), "no signal");
        require(sd_bus_send(bus, signal, nullptr), "not sent");
        sd_bus_message_unref(signal);
        if (i % FLUSH_AFTER == 0)
        {
            require(sd_bus_flush(bus), "not sent");
        }
    }
    return replied;
}

sd_bus_vtable const FUNCTIONS[] = {SD_BUS_VTABLE_START(0),
                                   SD_BUS_METHOD("EchoInt", "i", "i", &echoInt, SD_BUS_VTABLE_UNPRIVILEGED),
                                   SD_BUS_METHOD("EchoText", "s", "s", &echoText, SD_BUS_VTABLE_UNPRIVILEGED),
                                   SD_BUS_METHOD("EchoBytes", "ay", "ay", &echoBytes, SD_BUS_VTABLE_UNPRIVILEGED),
                                   SD_BUS_METHOD("Publish", "i", "", &publish, SD_BUS_VTABLE_UNPRIVILEGED),
                                   SD_BUS_SIGNAL("Tick", "i", 0),
                                   SD_BUS_VTABLE_END};

int countTick(sd_bus_message* signal, void* received, sd_bus_error*)
{
    int value = 0;
    require(sd_bus_message_read(signal, "i", &value), "no argument");
    ++*static_cast<int*>(received);
    return 0;
}

int onAnswer(sd_bus_message* reply, void* place, sd_bus_error*)
{
    int answer = 0;
    require(sd_bus_message_read(reply, "i", &answer), "no result");
    auto& answered = *static_cast<CInFlight::SPlace*>(place);
    answered.calls.Answer(answered, answer);
    return 0;
}

void processOrWait(sd_bus* bus)
{
    int const processed = sd_bus_process(bus, nullptr);
    require(processed, "not processed");
    if (processed == 0)
    {
        require(sd_bus_wait(bus, UINT64_MAX), "not waited");
    }
}

class CSdBusClient : public IClient
{
public:
    explicit CSdBusClient(std::string server) : m_server(std::move(server)), m_bus(connectToBus()) {}

    int EchoInt(int value) override
    {
        Call("EchoInt", "i", value);
        require(sd_bus_message_read(m_reply, "i", &value), "no result");
        return value;
    }

    std::string EchoText(std::string const& text) override
    {
        Call("EchoText", "s", text.c_str());
        char const* result = nullptr;
        require(sd_bus_message_read(m_reply, "s", &result), "no result");
        return result;
    }

    Bytes EchoBytes(Bytes const& bytes) override
    {
        sd_bus_message* call = nullptr;
        require(sd_bus_message_new_method_call(m_bus, &call, m_server.c_str(), PATH, INTERFACE, "EchoBytes"),
                "no call");
        require(sd_bus_message_append_array(call, 'y', bytes.data(), bytes.size()), "no argument");
        Forget();
        require(sd_bus_call(m_bus, call, 0, nullptr, &m_reply), "no reply");
        sd_bus_message_unref(call);
        void const* data = nullptr;
        std::size_t size = 0;
        require(sd_bus_message_read_array(m_reply, 'y', &data, &size), "no result");
        auto const* const first = static_cast<std::uint8_t const*>(data);
        return Bytes(first, first + size);
    }

    void ReceiveCallbacks(int count) override
    {
        int received = 0;
        sd_bus_slot* slot = nullptr;
        require(sd_bus_match_signal(m_bus, &slot, nullptr, PATH, INTERFACE, "Tick", &countTick, &received), "no match");
        Call("Publish", "i", count);
        while (received < count)
        {
            processOrWait(m_bus);
        }
        sd_bus_slot_unref(slot);
    }

    void EchoInFlight(int calls, int window) override
    {
        CInFlight inFlight(calls, window, [this](CInFlight::SPlace& place) {
            require(sd_bus_call_method_async(m_bus, nullptr, m_server.c_str(), PATH, INTERFACE, "EchoInt", &onAnswer,
                                             &place, "i", place.value),
                    "not sent");
        });
        inFlight.Start();
        while (!inFlight.IsDone())
        {
            processOrWait(m_bus);
        }
    }

private:
    template <class T>
    void Call(char const* function, char const* signature, T argument)
    {
        Forget();
        require(sd_bus_call_method(m_bus, m_server.c_str(), PATH, INTERFACE, function, nullptr, &m_reply, signature,
                                   argument),
                "no reply");
    }

    void Forget()
    {
        sd_bus_message_unref(m_reply);
        m_reply = nullptr;
    }

    std::string m_server;
    sd_bus* m_bus;
    sd_bus_message* m_reply = nullptr;
};

} // namespace

std::unique_ptr<IClient> makeClient(std::string const& /*variant*/, std::string const& server)
{
    return std::make_unique<CSdBusClient>(server);
}

void serve(std::string const& /*variant*/, std::string const& name, std::function<void()> const& ready)
{
    sd_bus* const bus = connectToBus();
    require(sd_bus_add_object_vtable(bus, nullptr, PATH, INTERFACE, FUNCTIONS, nullptr), "no object");
    require(sd_bus_request_name(bus, name.c_str(), 0), "no name");
    ready();
    for (;;)
    {
        processOrWait(bus);
    }
}

} // namespace bench
