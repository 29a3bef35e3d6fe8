#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <nelo_rpc/Values.h>

#include "../SystemLog.h"
#include "DbusNames.h"
#include "DbusPointers.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace nelo_rpc::dbus
{

namespace
{

constexpr int TAG_INT = 0;
constexpr int TAG_STRING = 1;
constexpr int TAG_C_STRING = 2;
constexpr int TAG_BINARY = 3;

/// A stock system bus cuts a connection off that sends a larger message.
constexpr std::size_t LARGEST_MESSAGE = 32 * 1024 * 1024;

/// More than path, interface, member, the longest names and the longest signature take together.
constexpr std::size_t LARGEST_HEADER = 2048;

[[noreturn]] void failOn(char const* what)
{
    logFatal() << what;
    std::abort();
}

/// Reads a basic argument, whose type the caller has to check: libdbus writes whatever is there.
DBusBasicValue takeBasic(DBusMessageIter* iter)
{
    DBusBasicValue value{};
    dbus_message_iter_get_basic(iter, &value);
    dbus_message_iter_next(iter);
    return value;
}

using Bytes = std::pair<char const*, unsigned int>;

// Each reads the argument under the iterator and advances, or says why it cannot.

char const* take(DBusMessageIter* iter, int& value)
{
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_INT32)
    {
        return "Integer should be in DBusMessage";
    }
    value = takeBasic(iter).i32;
    return nullptr;
}

char const* take(DBusMessageIter* iter, char*& value)
{
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_STRING)
    {
        return "String should be in DBusMessage";
    }
    value = takeBasic(iter).str;
    return nullptr;
}

char const* take(DBusMessageIter* iter, Bytes& value)
{
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(iter) != DBUS_TYPE_BYTE)
    {
        return "Byte array should be in DBusMessage";
    }
    DBusMessageIter elements;
    dbus_message_iter_recurse(iter, &elements);
    char const* data = nullptr;
    int length = 0;
    dbus_message_iter_get_fixed_array(&elements, &data, &length);
    dbus_message_iter_next(iter);
    value = {data, static_cast<unsigned int>(length)};
    return nullptr;
}

template <class T>
T takeOrFail(DBusMessageIter* iter)
{
    T value{};
    if (char const* const why = take(iter, value))
    {
        failOn(why);
    }
    return value;
}

MessagePointer requireMessage(DBusMessage* message)
{
    if (message == nullptr)
    {
        throw std::bad_alloc();
    }
    return MessagePointer(message);
}

char const* whyNotText(std::string const& text)
{
    if (text.find('\0') != std::string::npos)
    {
        return "a string with an embedded NUL cannot be sent";
    }
    return dbus_validate_utf8(text.c_str(), nullptr) ? nullptr : "a string that is not valid UTF-8 cannot be sent";
}

/// What one value adds to a body: its bytes with their padding, and its part of the signature with index and tag.
struct SFootprint
{
    std::size_t bytes;
    std::size_t signature;
};

SFootprint footprintOf(types::CValue& value)
{
    constexpr std::size_t INTEGER = 4;
    constexpr std::size_t PADDING = 3;
    if (types::hasType<std::string>(value))
    {
        return {3 * INTEGER + types::extract<std::string>(value).size() + 1 + PADDING, 3};
    }
    if (types::hasType<char const*>(value))
    {
        return {3 * INTEGER + std::strlen(types::extract<char const*>(value)) + 1 + PADDING, 3};
    }
    if (auto const* const binary = dynamic_cast<types::CBinaryValue*>(&value))
    {
        return {4 * INTEGER + binary->GetSize() + PADDING, 5};
    }
    return {3 * INTEGER, 3};
}

char const* whyNotValue(types::CValue& value)
{
    if (types::hasType<std::string>(value))
    {
        return whyNotText(types::extract<std::string>(value));
    }
    if (types::hasType<char const*>(value))
    {
        return whyNotText(types::extract<char const*>(value));
    }
    return nullptr;
}

/// Whether a body of this list would be too large or have too long a signature.
char const* whyNotFootprint(types::CValueList const& list)
{
    SFootprint total{LARGEST_HEADER, 0};
    for (auto const& [index, value] : list)
    {
        SFootprint const one = footprintOf(*value);
        total.bytes += one.bytes;
        total.signature += one.signature;
    }
    if (total.bytes > LARGEST_MESSAGE)
    {
        return "a message of more than 32 MiB cannot be sent";
    }
    return total.signature > DBUS_MAXIMUM_SIGNATURE_LENGTH ? "a list with so many entries cannot be sent" : nullptr;
}

void putValue(DBusMessageIter* iter, int index, types::CValue& value)
{
    if (types::hasType<char*>(value) || types::hasType<char const*>(value))
    {
        dbusMessagePut(iter, index);
        dbusMessagePut(iter, TAG_C_STRING);
        dbusMessagePut(iter, types::extract<char const*>(value));
    }
    else if (types::hasType<int>(value))
    {
        dbusMessagePut(iter, index);
        dbusMessagePut(iter, TAG_INT);
        dbusMessagePut(iter, types::extract<int>(value));
    }
    else if (types::hasType<std::string>(value))
    {
        dbusMessagePut(iter, index);
        dbusMessagePut(iter, TAG_STRING);
        dbusMessagePut(iter, types::extract<std::string>(value));
    }
    else
    {
        auto const& binary = dynamic_cast<types::CBinaryValue const&>(value);
        dbusMessagePut(iter, index);
        dbusMessagePut(iter, TAG_BINARY);
        dbusMessagePut(iter, std::pair<char const*, unsigned int>(binary.GetData(), binary.GetSize()));
        dbusMessagePut(iter, binary.GetKind());
    }
}

/// Reads what follows an index and a tag; the cause if that is not what the tag promises.
std::string getValue(DBusMessageIter* iter, int index, int tag, std::shared_ptr<types::CValue>& value)
{
    char const* why = nullptr;
    switch (tag)
    {
    case TAG_INT:
    {
        int number = 0;
        why = take(iter, number);
        value = types::makeValue<int>(number);
        break;
    }
    case TAG_STRING:
    {
        char* text = nullptr;
        why = take(iter, text);
        value = types::makeValue<std::string>(types::toString(text));
        break;
    }
    case TAG_C_STRING:
    {
        char* text = nullptr;
        why = take(iter, text);
        value = why == nullptr ? types::makeValue<char*>(text) : nullptr;
        break;
    }
    case TAG_BINARY:
    {
        Bytes bytes;
        int kind = 0;
        why = take(iter, bytes);
        why = why == nullptr ? take(iter, kind) : why;
        value = std::make_shared<types::CBinaryValue>(bytes.first, bytes.second, kind);
        break;
    }
    default:
        return "Unknown type inside DBusMessage: " + std::to_string(tag) + " for map index " + std::to_string(index);
    }
    return types::toString(why);
}

/// Reads a body up to its end, or up to the first entry that is ill-formed, and then gives the cause.
std::string getEntries(DBusMessageIter* iter, types::CValueList& list)
{
    while (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_INVALID)
    {
        int index = 0;
        int tag = 0;
        char const* why = take(iter, index);
        why = why == nullptr ? take(iter, tag) : why;
        if (why != nullptr)
        {
            return why;
        }
        std::shared_ptr<types::CValue> value;
        std::string cause = getValue(iter, index, tag, value);
        if (!cause.empty())
        {
            return cause;
        }
        list[index] = std::move(value);
    }
    return "";
}

} // namespace

template <>
int dbusMessageGet<int>(DBusMessageIter* iter)
{
    return takeOrFail<int>(iter);
}

template <>
char* dbusMessageGet<char*>(DBusMessageIter* iter)
{
    return takeOrFail<char*>(iter);
}

template <>
std::string dbusMessageGet<std::string>(DBusMessageIter* iter)
{
    return takeOrFail<char*>(iter);
}

template <>
std::pair<char const*, unsigned int> dbusMessageGet<std::pair<char const*, unsigned int>>(DBusMessageIter* iter)
{
    return takeOrFail<Bytes>(iter);
}

void dbusMessagePut(DBusMessageIter* iter, char const* value)
{
    if (value == nullptr || !dbus_validate_utf8(value, nullptr))
    {
        failOn("String for DBusMessage should be valid UTF-8");
    }
    dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &value);
}

void dbusMessagePut(DBusMessageIter* iter, std::string const& value)
{
    if (value.find('\0') != std::string::npos)
    {
        failOn("String for DBusMessage should be without NUL");
    }
    dbusMessagePut(iter, value.c_str());
}

void dbusMessagePut(DBusMessageIter* iter, int value)
{
    dbus_int32_t const wire = value;
    dbus_message_iter_append_basic(iter, DBUS_TYPE_INT32, &wire);
}

void dbusMessagePut(DBusMessageIter* iter, std::pair<char const*, unsigned int> const& value)
{
    if (value.second > DBUS_MAXIMUM_ARRAY_LENGTH)
    {
        failOn("Byte array for DBusMessage should be at most 64 MiB");
    }
    DBusMessageIter elements;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &elements);
    dbus_message_iter_append_fixed_array(&elements, DBUS_TYPE_BYTE, &value.first, static_cast<int>(value.second));
    dbus_message_iter_close_container(iter, &elements);
}

void fillDbusMessage(types::CValueList const& list, DBusMessage* msg)
{
    logDebug() << "nelo_rpc::dbus::fillDbusMessage, list=" << types::toString(list);
    if (char const* const why = whyNotFootprint(list))
    {
        failOn(why);
    }
    DBusMessageIter iter;
    dbus_message_iter_init_append(msg, &iter);
    for (auto const& [index, entry] : list)
    {
        std::shared_ptr<types::CValue> const value = entry;
        putValue(&iter, index, *value);
    }
    logDebug() << "nelo_rpc::dbus::fillDbusMessage done";
}

types::CValueList dbusMessageToValueList(DBusMessage* msg)
{
    types::CValueList list;
    std::string const cause = readValueList(msg, list);
    if (!cause.empty())
    {
        failOn(cause.c_str());
    }
    return list;
}

std::string readValueList(DBusMessage* msg, types::CValueList& list)
{
    logDebug() << "nelo_rpc::dbus::dbusMessageToValueList";
    list.clear();
    if (msg == nullptr)
    {
        logDebug() << "nelo_rpc::dbus::dbusMessageToValueList returning empty list";
        return "";
    }
    DBusMessageIter iter;
    dbus_message_iter_init(msg, &iter);
    std::string cause = getEntries(&iter, list);
    if (!cause.empty())
    {
        list.clear();
        return cause;
    }
    logDebug() << "nelo_rpc::dbus::dbusMessageToValueList done, list = " << types::toString(list);
    return "";
}

std::string whyNotSendable(types::CValueList const& list)
{
    for (auto const& [index, value] : list)
    {
        if (char const* const why = whyNotValue(*value))
        {
            return why;
        }
    }
    return types::toString(whyNotFootprint(list));
}

DBusMessage* valueListToFunctionCall(std::string const& destination, types::CValueList const& list)
{
    MessagePointer call =
        requireMessage(dbus_message_new_method_call(destination.c_str(), OBJECT_PATH, INTERFACE, MEMBER));
    fillDbusMessage(list, call.get());
    return call.release();
}

DBusMessage* valueListToCallback(std::string const& destination, types::CValueList const& list)
{
    MessagePointer callback = requireMessage(dbus_message_new_signal(OBJECT_PATH, INTERFACE, MEMBER));
    dbus_message_set_destination(callback.get(), destination.c_str());
    fillDbusMessage(list, callback.get());
    return callback.release();
}

DBusMessage* valueListToFunctionResult(DBusMessage* call, types::CValueList const& list)
{
    MessagePointer result = requireMessage(dbus_message_new_method_return(call));
    fillDbusMessage(list, result.get());
    return result.release();
}

} // namespace nelo_rpc::dbus
