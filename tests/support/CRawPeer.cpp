#include "CRawPeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

// One wait inside libdbus, so that a server notices that it is to stop. Arriving bytes end it at once.
constexpr milliseconds ONE_WAIT{20};

void putHead(DBusMessage* message, int index, int tag)
{
    ASSERT_TRUE(dbus_message_append_args(message, DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &tag, DBUS_TYPE_INVALID));
}

void putText(DBusMessage* message, int index, int tag, std::string const& value)
{
    putHead(message, index, tag);
    char const* const text = value.c_str();
    ASSERT_TRUE(dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID));
}

std::string describeArgument(DBusMessageIter* argument)
{
    DBusBasicValue value{};
    switch (dbus_message_iter_get_arg_type(argument))
    {
    case DBUS_TYPE_INT32:
        dbus_message_iter_get_basic(argument, &value);
        return std::to_string(value.i32);
    case DBUS_TYPE_STRING:
        dbus_message_iter_get_basic(argument, &value);
        return '"' + std::string(value.str) + '"';
    case DBUS_TYPE_ARRAY:
    {
        DBusMessageIter elements;
        unsigned char const* bytes = nullptr;
        int count = 0;
        dbus_message_iter_recurse(argument, &elements);
        dbus_message_iter_get_fixed_array(&elements, &bytes, &count);
        std::string text = "[";
        for (int i = 0; i < count; ++i)
        {
            char hex[3];
            std::snprintf(hex, sizeof(hex), "%02x", bytes[i]);
            text += hex;
        }
        return text + "]";
    }
    default:
        return "?";
    }
}

} // namespace

MessagePtr rawCall(std::string const& destination, char const* path)
{
    return MessagePtr(dbus_message_new_method_call(destination.c_str(), path, WIRE_INTERFACE, WIRE_MEMBER));
}

MessagePtr rawSignal(std::string const& destination, char const* path)
{
    MessagePtr message(dbus_message_new_signal(path, WIRE_INTERFACE, WIRE_MEMBER));
    dbus_message_set_destination(message.get(), destination.c_str());
    return message;
}

void putInt(DBusMessage* message, int index, int value)
{
    putHead(message, index, 0);
    ASSERT_TRUE(dbus_message_append_args(message, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID));
}

void putString(DBusMessage* message, int index, std::string const& value)
{
    putText(message, index, 1, value);
}

void putCString(DBusMessage* message, int index, std::string const& value)
{
    putText(message, index, 2, value);
}

void putBytes(DBusMessage* message, int index, std::vector<unsigned char> const& bytes, int kind)
{
    putHead(message, index, 3);
    unsigned char const* const data = bytes.data();
    ASSERT_TRUE(dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                                         static_cast<int>(bytes.size()), DBUS_TYPE_INT32, &kind, DBUS_TYPE_INVALID));
}

std::string describeBody(DBusMessage* message)
{
    std::string text;
    DBusMessageIter argument;
    dbus_message_iter_init(message, &argument);
    while (dbus_message_iter_get_arg_type(&argument) != DBUS_TYPE_INVALID)
    {
        text += (text.empty() ? "" : " ") + describeArgument(&argument);
        dbus_message_iter_next(&argument);
    }
    return text;
}

std::string textOf(char const* field)
{
    return field != nullptr ? field : "";
}

CRawPeer::CRawPeer()
{
    dbus_threads_init_default();
    DBusError error = DBUS_ERROR_INIT;
    m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (m_connection == nullptr)
    {
        ADD_FAILURE() << "a raw peer cannot connect: " << textOf(error.message);
        std::abort(); // nothing can be tested without it
    }
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
}

CRawPeer::~CRawPeer()
{
    dbus_connection_close(m_connection);
    // What was queued goes with the dispatch of the disconnection.
    while (dbus_connection_dispatch(m_connection) == DBUS_DISPATCH_DATA_REMAINS)
    {
    }
    dbus_connection_unref(m_connection);
}

std::string CRawPeer::GetUniqueName() const
{
    return textOf(dbus_bus_get_unique_name(m_connection));
}

int CRawPeer::RequestName(std::string const& name, unsigned int flags)
{
    return dbus_bus_request_name(m_connection, name.c_str(), flags, nullptr);
}

void CRawPeer::ReleaseName(std::string const& name)
{
    dbus_bus_release_name(m_connection, name.c_str(), nullptr);
}

std::string CRawPeer::OwnerOf(std::string const& name)
{
    MessagePtr const question(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner"));
    char const* const text = name.c_str();
    dbus_message_append_args(question.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    MessagePtr const answer = Call(question.get());
    char const* owner = nullptr;
    if (answer == nullptr ||
        !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID) ||
        dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_ERROR)
    {
        return "";
    }
    return owner;
}

dbus_uint32_t CRawPeer::Send(DBusMessage* message)
{
    dbus_uint32_t serial = 0;
    EXPECT_TRUE(dbus_connection_send(m_connection, message, &serial));
    dbus_connection_flush(m_connection);
    return serial;
}

MessagePtr CRawPeer::Call(DBusMessage* call, milliseconds limit)
{
    dbus_uint32_t const serial = Send(call);
    return ReceiveIf([serial](DBusMessage* m) { return dbus_message_get_reply_serial(m) == serial; }, limit);
}

MessagePtr CRawPeer::Receive(int type, milliseconds limit)
{
    return ReceiveIf(
        [type](DBusMessage* m) {
            return dbus_message_get_type(m) == type && textOf(dbus_message_get_sender(m)) != DBUS_SERVICE_DBUS &&
                   !dbus_message_has_path(m, DBUS_PATH_LOCAL);
        },
        limit);
}

MessagePtr CRawPeer::ReceiveIf(std::function<bool(DBusMessage*)> const& wanted, milliseconds limit)
{
    auto const end = steady_clock::now() + limit;
    for (;;)
    {
        while (MessagePtr message{dbus_connection_pop_message(m_connection)})
        {
            if (wanted(message.get()))
            {
                return message;
            }
        }
        auto const left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
        if (left.count() <= 0 ||
            !dbus_connection_read_write(m_connection, static_cast<int>(std::min(left, ONE_WAIT).count())))
        {
            return nullptr;
        }
    }
}

CRawServer::CRawServer(std::string const& name, Handler handler, EName howItIsHeld)
    : m_uniqueName(m_peer.GetUniqueName())
{
    EXPECT_EQ(howItIsHeld == EName::Owned ? DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER : DBUS_REQUEST_NAME_REPLY_IN_QUEUE,
              m_peer.RequestName(name));
    m_thread = std::thread([this, handler = std::move(handler)] { Run(handler); });
}

CRawServer::~CRawServer()
{
    m_stop = true;
    m_thread.join();
}

void CRawServer::Run(Handler const& handler)
{
    while (!m_stop)
    {
        MessagePtr call = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_CALL, ONE_WAIT);
        if (call != nullptr)
        {
            handler(m_peer, std::move(call));
        }
        else if (!dbus_connection_get_is_connected(m_peer.GetConnection()))
        {
            return;
        }
    }
}

void answerInt(CRawPeer& peer, DBusMessage* call, int result)
{
    MessagePtr const answer(dbus_message_new_method_return(call));
    putInt(answer.get(), 0, result);
    peer.Send(answer.get());
}
