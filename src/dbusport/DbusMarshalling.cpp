#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <nelo_rpc/Values.h>

#include "../SystemLog.h"
#include "CMessageLayout.h"
#include "CallFailure.h"
#include "DbusNames.h"
#include "DbusPointers.h"
#include "WireValue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <typeinfo>
#include <vector>

namespace nelo_rpc::dbus
{

namespace
{

/// A stock system bus cuts a connection off that sends a larger message.
constexpr std::size_t LARGEST_MESSAGE = 32 * 1024 * 1024;

/// More than path, interface, member, the longest names and the longest signature take together.
constexpr std::size_t LARGEST_HEADER = 2048;

/// Room for a usual header; a longer one only costs a little time.
constexpr std::size_t USUAL_HEADER = 256;

/// What is larger is appended to a message that is loaded without it: loading copies everything twice more.
constexpr std::size_t LARGEST_LAID_OUT = 64 * 1024;

constexpr char const* TEXT_WITH_NUL = "String for DBusMessage should be without NUL";

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

/// Nearly all text is ASCII, which takes no validator to see.
bool isAscii(char const* text, std::size_t size)
{
    unsigned int all = 0;
    std::for_each(text, text + size, [&](char one) { all |= static_cast<unsigned char>(one); });
    return all < 0x80;
}

char const* whyNotText(char const* text, std::size_t size)
{
    if (std::memchr(text, '\0', size) != nullptr)
    {
        return "a string with an embedded NUL cannot be sent";
    }
    bool const isValid = isAscii(text, size) || dbus_validate_utf8(text, nullptr);
    return isValid ? nullptr : "a string that is not valid UTF-8 cannot be sent";
}

/// What one value adds to a body: index, tag and its own bytes with their padding.
std::size_t bytesIn(SWireValue const& value)
{
    constexpr std::size_t INTEGER = 4;
    constexpr std::size_t PADDING = 3;
    switch (value.tag)
    {
    case TAG_STRING:
    case TAG_C_STRING:
        return 3 * INTEGER + value.size + 1 + PADDING;
    case TAG_BINARY:
        return 4 * INTEGER + value.size + PADDING;
    default:
        return 3 * INTEGER;
    }
}

/// What a list takes as a message, and why that is too much, if it is.
struct SFootprint
{
    std::size_t bytes = LARGEST_HEADER;
    std::size_t signature = 0;

    void Add(SWireValue const& value)
    {
        bytes += bytesIn(value);
        signature += std::strlen(signatureOf(value));
    }

    char const* WhyTooLarge() const
    {
        if (bytes > LARGEST_MESSAGE)
        {
            return "a message of more than 32 MiB cannot be sent";
        }
        return signature > DBUS_MAXIMUM_SIGNATURE_LENGTH ? "a list with so many entries cannot be sent" : nullptr;
    }
};

struct SWireEntry
{
    int index;
    SWireValue value;
};
using WireEntries = std::vector<SWireEntry>;

/// All entries of a list, which must outlive them. A list that cannot be sent is fatal, a value of a class without a tag
/// is left for putEntry() to object to.
WireEntries wireEntriesOf(types::CValueList const& list)
{
    WireEntries entries;
    entries.reserve(list.size());
    SFootprint footprint;
    for (auto const& [index, value] : list)
    {
        entries.push_back({index, wireValueOf(*value)});
        footprint.Add(entries.back().value);
    }
    if (char const* const why = footprint.WhyTooLarge())
    {
        failOn(why);
    }
    return entries;
}

void putEntry(DBusMessageIter* iter, SWireEntry const& entry)
{
    SWireValue const& value = entry.value;
    if (value.tag == NO_TAG)
    {
        throw std::bad_cast();
    }
    dbusMessagePut(iter, entry.index);
    dbusMessagePut(iter, value.tag);
    if (value.tag == TAG_STRING && std::memchr(value.data, '\0', value.size) != nullptr)
    {
        failOn(TEXT_WITH_NUL);
    }
    if (value.IsText())
    {
        dbusMessagePut(iter, value.data);
        return;
    }
    if (value.tag == TAG_BINARY)
    {
        dbusMessagePut(iter, Bytes(value.data, static_cast<unsigned int>(value.size)));
    }
    dbusMessagePut(iter, value.number);
}

void putEntries(WireEntries::const_iterator entry, WireEntries::const_iterator end, DBusMessage* message)
{
    DBusMessageIter iter;
    dbus_message_iter_init_append(message, &iter);
    for (; entry != end; ++entry)
    {
        putEntry(&iter, *entry);
    }
}

/// The header of a message to be built.
struct SHead
{
    int type;
    char const* destination; // a valid name; null in the return to a call that no bus has handed on
    DBusMessage* call;       // that is replied to by a return

    /// The same by the bus library's own means.
    MessagePointer New() const
    {
        switch (type)
        {
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return requireMessage(dbus_message_new_method_call(destination, OBJECT_PATH, INTERFACE, MEMBER));
        case DBUS_MESSAGE_TYPE_SIGNAL:
        {
            MessagePointer signal = requireMessage(dbus_message_new_signal(OBJECT_PATH, INTERFACE, MEMBER));
            dbus_message_set_destination(signal.get(), destination);
            return signal;
        }
        default:
            return requireMessage(dbus_message_new_method_return(call));
        }
    }

    /// The fields in the order in which the bus library writes them.
    void AddTo(CMessageLayout& layout) const
    {
        bool const isCall = type == DBUS_MESSAGE_TYPE_METHOD_CALL;
        bool const isReturn = type == DBUS_MESSAGE_TYPE_METHOD_RETURN;
        layout.AddPath(isReturn ? nullptr : OBJECT_PATH);
        layout.AddDestination(isCall ? destination : nullptr);
        layout.AddInterface(isReturn ? nullptr : INTERFACE);
        layout.AddMember(isReturn ? nullptr : MEMBER);
        layout.AddDestination(isCall ? nullptr : destination);
        if (isReturn)
        {
            layout.AddReplySerial(dbus_message_get_serial(call));
        }
    }
};

/// The message with the entries up to `end`; null if the bus library does not take it.
MessagePointer layOut(SHead const& head, WireEntries::const_iterator begin, WireEntries::const_iterator end)
{
    std::size_t room = USUAL_HEADER;
    std::string signature;
    for (auto entry = begin; entry != end; ++entry)
    {
        room += bytesIn(entry->value);
        signature += signatureOf(entry->value);
    }
    CMessageLayout layout(head.type, head.type == DBUS_MESSAGE_TYPE_METHOD_CALL, room);
    head.AddTo(layout);
    layout.EndHeader(signature);
    for (auto entry = begin; entry != end; ++entry)
    {
        layout.AddEntry(entry->index, entry->value);
    }
    return layout.Load();
}

DBusMessage* build(SHead const& head, types::CValueList const& list)
{
    logDebug() << "nelo_rpc::dbus::fillDbusMessage, list=" << types::toString(list);
    WireEntries const entries = wireEntriesOf(list);
    auto rest = std::find_if(entries.begin(), entries.end(), [](SWireEntry const& entry) {
        return entry.value.tag == NO_TAG || entry.value.size > LARGEST_LAID_OUT;
    });
    MessagePointer message = layOut(head, entries.begin(), rest);
    if (message == nullptr)
    {
        // The bus library's functions say what is wrong.
        message = head.New();
        rest = entries.begin();
    }
    putEntries(rest, entries.end(), message.get());
    logDebug() << "nelo_rpc::dbus::fillDbusMessage done";
    return message.release();
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
        failOn(TEXT_WITH_NUL);
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
    WireEntries const entries = wireEntriesOf(list);
    putEntries(entries.begin(), entries.end(), msg);
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

SCallFailure failureToSend(types::CValueList const& call)
{
    SFootprint footprint;
    for (auto const& [index, value] : call)
    {
        SWireValue const wire = wireValueOf(*value);
        char const* const why = wire.IsText() ? whyNotText(wire.data, wire.size) : nullptr;
        if (why != nullptr)
        {
            return {ECallStatus::BadValue, why};
        }
        footprint.Add(wire);
    }
    char const* const why = footprint.WhyTooLarge();
    return why == nullptr ? SCallFailure{} : SCallFailure{ECallStatus::TooLarge, why};
}

SCallFailure failureToSendAnything(types::CValueList const& call)
{
    bool const haveTags = std::all_of(call.begin(), call.end(),
                                      [](auto const& entry) { return wireValueOf(*entry.second).tag != NO_TAG; });
    return haveTags ? failureToSend(call)
                    : SCallFailure{ECallStatus::BadValue, "a value of a class without a tag cannot be sent"};
}

std::string whyNotSendable(types::CValueList const& list)
{
    return failureToSend(list).reason;
}

DBusMessage* valueListToFunctionCall(std::string const& destination, types::CValueList const& list)
{
    return build({DBUS_MESSAGE_TYPE_METHOD_CALL, destination.c_str(), nullptr}, list);
}

DBusMessage* valueListToCallback(std::string const& destination, types::CValueList const& list)
{
    return build({DBUS_MESSAGE_TYPE_SIGNAL, destination.c_str(), nullptr}, list);
}

DBusMessage* valueListToFunctionResult(DBusMessage* call, types::CValueList const& list)
{
    return build({DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_sender(call), call}, list);
}

} // namespace nelo_rpc::dbus
