#include "Contender.h"
#include "InFlight.h"

#include <dbus/dbus.h>

#include <poll.h>
#include <sys/eventfd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <variant>

/// The bus library as it stands, with the bodies and the steps of the project's protocol, through its append functions.
/// Variants: "one-thread"; "worker", whose server hands each call to a second thread; "unasked", which is "one-thread"
/// but does not ask the bus whether a callback's receiver is there.
namespace bench
{

namespace
{

constexpr char const* PATH = "/org/trelin/nelo_rpc";
constexpr char const* INTERFACE = "org.trelin.nelo_rpc.Event";
constexpr char const* MEMBER = "Call";

struct SUnref
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, SUnref>;

/// Bytes are looked at where they lie in a message.
using BytesView = std::pair<char const*, int>;
using Value = std::variant<int, char const*, BytesView>;

void appendInt(DBusMessageIter& iter, int value)
{
    dbus_int32_t const wire = value;
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_INT32, &wire);
}

void append(DBusMessageIter& iter, int index, Value const& value)
{
    appendInt(iter, index);
    if (auto const* const number = std::get_if<int>(&value))
    {
        appendInt(iter, 0);
        appendInt(iter, *number);
    }
    else if (auto const* const text = std::get_if<char const*>(&value))
    {
        appendInt(iter, 1);
        dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, text);
    }
    else
    {
        auto const& [data, size] = std::get<BytesView>(value);
        appendInt(iter, 3);
        DBusMessageIter elements;
        dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &elements);
        dbus_message_iter_append_fixed_array(&elements, DBUS_TYPE_BYTE, &data, size);
        dbus_message_iter_close_container(&iter, &elements);
        appendInt(iter, 0);
    }
}

int takeInt(DBusMessageIter& iter)
{
    dbus_int32_t value = 0;
    if (dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_INT32)
    {
        fail("no number where one should be");
    }
    dbus_message_iter_get_basic(&iter, &value);
    dbus_message_iter_next(&iter);
    return value;
}

Value take(DBusMessageIter& iter)
{
    switch (takeInt(iter))
    {
    case 0:
        return takeInt(iter);
    case 1:
    {
        char const* text = nullptr;
        dbus_message_iter_get_basic(&iter, &text);
        dbus_message_iter_next(&iter);
        return text;
    }
    default:
    {
        BytesView bytes;
        DBusMessageIter elements;
        dbus_message_iter_recurse(&iter, &elements);
        dbus_message_iter_get_fixed_array(&elements, &bytes.first, &bytes.second);
        dbus_message_iter_next(&iter);
        takeInt(iter);
        return bytes;
    }
    }
}

/// The entry of a body under an index, and the function's name at -1.
struct SBody
{
    Value argument;
    std::string name;
};

SBody read(DBusMessage* message)
{
    SBody body;
    DBusMessageIter iter;
    dbus_message_iter_init(message, &iter);
    while (dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_INVALID)
    {
        int const index = takeInt(iter);
        Value const value = take(iter);
        if (index == 0)
        {
            body.argument = value;
        }
        else if (index == -1)
        {
            body.name = std::get<char const*>(value);
        }
    }
    return body;
}

DBusConnection* connectToBus()
{
    dbus_threads_init_default();
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (connection == nullptr)
    {
        fail("no bus");
    }
    return connection;
}

class CRawClient : public IClient
{
public:
    explicit CRawClient(std::string server) : m_server(std::move(server)), m_connection(connectToBus()) {}

    int EchoInt(int value) override { return std::get<int>(Call("EchoInt", value)); }
    std::string EchoText(std::string const& text) override
    {
        return std::get<char const*>(Call("EchoText", text.c_str()));
    }
    Bytes EchoBytes(Bytes const& bytes) override
    {
        BytesView const view(reinterpret_cast<char const*>(bytes.data()), static_cast<int>(bytes.size()));
        auto const [data, size] = std::get<BytesView>(Call("EchoBytes", view));
        return Bytes(data, data + size);
    }

    void ReceiveCallbacks(int count) override
    {
        int received = 0;
        dbus_connection_add_filter(m_connection, &CRawClient::Count, &received, nullptr);
        Call("Publish", count);
        while (received < count)
        {
            dbus_connection_read_write_dispatch(m_connection, -1);
        }
        dbus_connection_remove_filter(m_connection, &CRawClient::Count, &received);
    }

    void EchoInFlight(int calls, int window) override
    {
        CInFlight inFlight(calls, window, [this](CInFlight::SPlace& place) { StartCall(place); });
        inFlight.Start();
        while (!inFlight.IsDone())
        {
            dbus_connection_read_write_dispatch(m_connection, -1);
        }
    }

private:
    void StartCall(CInFlight::SPlace& place)
    {
        Message const call = MakeCall("EchoInt", place.value);
        DBusPendingCall* pending = nullptr;
        if (!dbus_connection_send_with_reply(m_connection, call.get(), &pending, -1) || pending == nullptr)
        {
            fail("not sent");
        }
        dbus_pending_call_set_notify(pending, &CRawClient::OnReply, &place, nullptr);
        dbus_pending_call_unref(pending); // the connection has a reference until the reply
    }

    static void OnReply(DBusPendingCall* pending, void* place)
    {
        auto& answered = *static_cast<CInFlight::SPlace*>(place);
        Message const reply(dbus_pending_call_steal_reply(pending));
        answered.calls.Answer(answered, std::get<int>(read(reply.get()).argument));
    }

    static DBusHandlerResult Count(DBusConnection*, DBusMessage* message, void* received)
    {
        if (!dbus_message_is_signal(message, INTERFACE, MEMBER))
        {
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        static_cast<void>(read(message));
        ++*static_cast<int*>(received);
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    Message MakeCall(char const* function, Value const& argument) const
    {
        Message call(dbus_message_new_method_call(m_server.c_str(), PATH, INTERFACE, MEMBER));
        DBusMessageIter iter;
        dbus_message_iter_init_append(call.get(), &iter);
        append(iter, -4, "Echo");
        append(iter, -2, 1);
        append(iter, -1, function);
        append(iter, 0, argument);
        return call;
    }

    /// What is returned lives until the next call.
    Value Call(char const* function, Value const& argument)
    {
        Message const call = MakeCall(function, argument);
        m_reply.reset(dbus_connection_send_with_reply_and_block(m_connection, call.get(), -1, nullptr));
        if (m_reply == nullptr)
        {
            fail("no reply");
        }
        return read(m_reply.get()).argument;
    }

    std::string m_server;
    DBusConnection* m_connection;
    Message m_reply;
};

class CRawServer
{
public:
    explicit CRawServer(std::string const& variant) : m_variant(variant), m_connection(connectToBus())
    {
        dbus_connection_add_filter(m_connection, &CRawServer::Filter, this, nullptr);
        if (m_variant == "worker")
        {
            dbus_connection_set_wakeup_main_function(m_connection, &CRawServer::WakeUp, this, nullptr);
            m_worker = std::thread([this] { Work(); });
        }
    }

    void Own(std::string const& name)
    {
        dbus_bus_request_name(m_connection, name.c_str(), DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr);
    }

    void Run()
    {
        while (dbus_connection_read_write_dispatch(m_connection, m_worker.joinable() ? 0 : -1))
        {
            if (m_worker.joinable() && dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_COMPLETE)
            {
                WaitOutside();
            }
        }
    }

private:
    static DBusHandlerResult Filter(DBusConnection*, DBusMessage* message, void* server)
    {
        if (!dbus_message_is_method_call(message, INTERFACE, MEMBER))
        {
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        static_cast<CRawServer*>(server)->Take(Message(dbus_message_ref(message)));
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    /// What the worker sends would lie until the next call arrives, if this thread waited inside the bus library.
    void WaitOutside() const
    {
        int fd = -1;
        dbus_connection_get_unix_fd(m_connection, &fd);
        short const out = dbus_connection_has_messages_to_send(m_connection) ? POLLOUT : 0;
        pollfd waited[2] = {{fd, static_cast<short>(POLLIN | out), 0}, {m_wakeUp, POLLIN, 0}};
        ::poll(waited, 2, -1);
        eventfd_t count = 0;
        ::eventfd_read(m_wakeUp, &count);
    }

    static void WakeUp(void* server) { ::eventfd_write(static_cast<CRawServer*>(server)->m_wakeUp, 1); }

    void Take(Message call)
    {
        if (!m_worker.joinable())
        {
            Carry(call.get());
            return;
        }
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_calls.push_back(std::move(call));
        m_changed.notify_one();
    }

    void Work()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;)
        {
            m_changed.wait(lock, [this] { return !m_calls.empty(); });
            Message const call = std::move(m_calls.front());
            m_calls.pop_front();
            lock.unlock();
            Carry(call.get());
            lock.lock();
        }
    }

    void Carry(DBusMessage* call)
    {
        SBody const body = read(call);
        Message const result(dbus_message_new_method_return(call));
        DBusMessageIter iter;
        dbus_message_iter_init_append(result.get(), &iter);
        append(iter, 0, body.argument);
        dbus_connection_send(m_connection, result.get(), nullptr);
        if (body.name == "Publish")
        {
            Publish(dbus_message_get_sender(call), std::get<int>(body.argument));
        }
    }

    void Publish(char const* receiver, int count)
    {
        for (int i = 0; i < count; ++i)
        {
            if (m_variant != "unasked" && !dbus_bus_name_has_owner(m_connection, receiver, nullptr))
            {
                return;
            }
            Message const callback(dbus_message_new_signal(PATH, INTERFACE, MEMBER));
            dbus_message_set_destination(callback.get(), receiver);
            DBusMessageIter iter;
            dbus_message_iter_init_append(callback.get(), &iter);
            append(iter, -2, 1);
            append(iter, -1, "OnTick");
            append(iter, 0, i);
            dbus_connection_send(m_connection, callback.get(), nullptr);
        }
    }

    std::string m_variant;
    DBusConnection* m_connection;
    int const m_wakeUp = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::thread m_worker;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Message> m_calls;
};

} // namespace

std::unique_ptr<IClient> makeClient(std::string const& /*variant*/, std::string const& server)
{
    return std::make_unique<CRawClient>(server);
}

void serve(std::string const& variant, std::string const& name, std::function<void()> const& ready)
{
    CRawServer server(variant);
    server.Own(name);
    ready();
    server.Run();
    fail("the bus has gone");
}

} // namespace bench
