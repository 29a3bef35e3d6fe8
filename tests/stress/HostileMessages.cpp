#include "HostileMessages.h"

#include "StressTypes.h"

#include <unistd.h>

#include <array>
#include <limits>

namespace
{

constexpr char const* OWN_TYPE = "CClientConnection";
constexpr int NEVER_MADE = 123456789;

using Target = SHostileTarget;
using Filler = std::function<void(DBusMessage* message, Target const& target)>;
using Maker = std::function<MessagePtr(Target const& target)>;

// ---- building blocks ----

void append(DBusMessage* message, int type, void const* value)
{
    dbus_message_append_args(message, type, value, DBUS_TYPE_INVALID);
}

void appendInt(DBusMessage* message, int value)
{
    append(message, DBUS_TYPE_INT32, &value);
}

void appendText(DBusMessage* message, char const* text)
{
    append(message, DBUS_TYPE_STRING, &text);
}

/// The reserved entries of a call, well-formed.
void putReserved(DBusMessage* message, std::string const& type, int actorId, std::string const& function)
{
    putString(message, -4, type);
    putInt(message, -2, actorId);
    putString(message, -1, function);
}

MessagePtr callOf(Target const& target, std::string const& type, int actorId, std::string const& function)
{
    MessagePtr message = rawCall(target.server);
    putReserved(message.get(), type, actorId, function);
    return message;
}

MessagePtr callOfConnection(Target const& target, std::string const& function)
{
    return callOf(target, OWN_TYPE, 0, function);
}

MessagePtr callOfStepper(Target const& target, std::string const& function)
{
    return callOf(target, STEPPER, target.actorId, function);
}

/// An array in an array and so on: deep, but within what D-Bus allows.
void appendNested(DBusMessageIter* iter, int depth)
{
    std::string const signature = std::string(static_cast<std::size_t>(depth), 'a') + "i";
    DBusMessageIter inside;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, signature.c_str() + 1, &inside);
    if (depth > 1)
    {
        appendNested(&inside, depth - 1);
    }
    dbus_message_iter_close_container(iter, &inside);
}

void appendContainer(DBusMessage* message, int type, char const* contents)
{
    DBusMessageIter iter;
    DBusMessageIter inside;
    int const value = 1;
    dbus_message_iter_init_append(message, &iter);
    dbus_message_iter_open_container(&iter, type, contents, &inside);
    dbus_message_iter_append_basic(&inside, DBUS_TYPE_INT32, &value);
    dbus_message_iter_close_container(&iter, &inside);
}

void appendDescriptor(DBusMessage* message)
{
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) == 0)
    {
        append(message, DBUS_TYPE_UNIX_FD, &ends[0]); // which takes a copy
        ::close(ends[0]);
        ::close(ends[1]);
    }
}

/// Arguments as they fall.
void appendAnything(DBusMessage* message, std::mt19937& random)
{
    int const count = static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i)
    {
        double const number = 0.5;
        switch (random() % 6)
        {
        case 0:
            appendText(message, "anything");
            break;
        case 1:
            append(message, DBUS_TYPE_DOUBLE, &number);
            break;
        case 2:
            appendContainer(message, DBUS_TYPE_VARIANT, "i");
            break;
        default:
            appendInt(message, static_cast<int>(random() % 8) - 4);
        }
    }
    appendContainer(message, DBUS_TYPE_STRUCT, nullptr); // at the latest this is wrong
}

// ---- classes ----

/// A call with a body that breaks the rules behind reserved entries that keep to them.
SHostileClass illFormed(char const* name, Filler const& fill)
{
    return {name, EFate::Refused, [fill](Target const& target) {
                MessagePtr message = callOfConnection(target, "ctor");
                fill(message.get(), target);
                return message;
            }};
}

/// A call whose body is all that the filler appends.
SHostileClass bareBody(char const* name, Filler const& fill)
{
    return {name, EFate::Refused, [fill](Target const& target) {
                MessagePtr message = rawCall(target.server);
                fill(message.get(), target);
                return message;
            }};
}

SHostileClass refused(char const* name, Maker make)
{
    return {name, EFate::Refused, std::move(make)};
}

SHostileClass senseless(char const* name, Maker make)
{
    return {name, EFate::Either, std::move(make)};
}

SHostileClass ignored(char const* name, Maker make)
{
    return {name, EFate::Ignored, std::move(make)};
}

void addOtherHeaders(std::vector<SHostileClass>& classes)
{
    classes.push_back(refused("another path", [](Target const& t) { return rawCall(t.server, "/another"); }));
    classes.push_back(refused("another interface", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "ctor");
        dbus_message_set_interface(message.get(), "org.trelin.another");
        return message;
    }));
    classes.push_back(refused("another member", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "ctor");
        dbus_message_set_member(message.get(), "Another");
        return message;
    }));
    classes.push_back(refused("properties", [](Target const& t) {
        return MessagePtr(dbus_message_new_method_call(t.server.c_str(), WIRE_PATH, DBUS_INTERFACE_PROPERTIES, "Get"));
    }));
    classes.push_back({"introspection", EFate::Either, [](Target const& t) {
                           return MessagePtr(dbus_message_new_method_call(t.server.c_str(), WIRE_PATH,
                                                                          DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
                       }});
    classes.push_back({"ping", EFate::Answered, [](Target const& t) {
                           return MessagePtr(dbus_message_new_method_call(t.server.c_str(), "/anything",
                                                                          DBUS_INTERFACE_PEER, "Ping"));
                       }});
}

void addIllFormedEntries(std::vector<SHostileClass>& classes)
{
    classes.push_back(illFormed("an index alone", [](DBusMessage* m, Target const&) { appendInt(m, 0); }));
    classes.push_back(illFormed("a tag without a value", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, 1);
    }));
    classes.push_back(illFormed("an unknown tag", [](DBusMessage* m, Target const& t) {
        appendInt(m, 0);
        appendInt(m, 4 + static_cast<int>(t.random() % 1000));
        appendInt(m, 0);
    }));
    classes.push_back(illFormed("a negative tag", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, std::numeric_limits<int>::min());
        appendInt(m, 0);
    }));
    classes.push_back(illFormed("a text for an integer", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, 0);
        appendText(m, "text");
    }));
    classes.push_back(illFormed("an integer for a text", [](DBusMessage* m, Target const& t) {
        appendInt(m, 0);
        appendInt(m, 1 + static_cast<int>(t.random() % 2));
        appendInt(m, 0x41414141);
    }));
    classes.push_back(illFormed("an integer for bytes", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, 3);
        appendInt(m, 0x41414141);
        appendInt(m, 0);
    }));
    classes.push_back(illFormed("bytes without a kind", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, 3);
        std::array<unsigned char, 4> const bytes{};
        unsigned char const* const data = bytes.data();
        dbus_message_append_args(m, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, 4, DBUS_TYPE_INVALID);
    }));
    classes.push_back(illFormed("integers for bytes", [](DBusMessage* m, Target const&) {
        appendInt(m, 0);
        appendInt(m, 3);
        appendContainer(m, DBUS_TYPE_ARRAY, "i");
        appendInt(m, 0);
    }));
    classes.push_back(illFormed("deeply nested arrays", [](DBusMessage* m, Target const& t) {
        DBusMessageIter iter;
        dbus_message_iter_init_append(m, &iter);
        appendNested(&iter, 1 + static_cast<int>(t.random() % 31));
    }));
    classes.push_back(illFormed("a file descriptor", [](DBusMessage* m, Target const&) { appendDescriptor(m); }));
    classes.push_back(
        illFormed("anything behind a call", [](DBusMessage* m, Target const& t) { appendAnything(m, t.random); }));
}

void addOtherBasicTypes(std::vector<SHostileClass>& classes)
{
    static char const* const path = "/a";
    static char const* const signature = "ai";
    static std::uint64_t const one = 1;
    struct SType
    {
        char const* name;
        int type;
        void const* value;
    };
    for (SType const& type :
         {SType{"a byte for an index", DBUS_TYPE_BYTE, &one}, SType{"a boolean for an index", DBUS_TYPE_BOOLEAN, &one},
          SType{"a short for an index", DBUS_TYPE_INT16, &one}, SType{"unsigned for an index", DBUS_TYPE_UINT32, &one},
          SType{"a long for an index", DBUS_TYPE_INT64, &one}, SType{"a double for an index", DBUS_TYPE_DOUBLE, &one},
          SType{"a path for an index", DBUS_TYPE_OBJECT_PATH, &path},
          SType{"a signature for an index", DBUS_TYPE_SIGNATURE, &signature}})
    {
        classes.push_back(
            illFormed(type.name, [type](DBusMessage* m, Target const&) { append(m, type.type, type.value); }));
    }
    classes.push_back(illFormed("a variant for an index",
                                [](DBusMessage* m, Target const&) { appendContainer(m, DBUS_TYPE_VARIANT, "i"); }));
    classes.push_back(illFormed("a structure for an index",
                                [](DBusMessage* m, Target const&) { appendContainer(m, DBUS_TYPE_STRUCT, nullptr); }));
}

void addWrongReservedEntries(std::vector<SHostileClass>& classes)
{
    classes.push_back(bareBody("an empty body", [](DBusMessage*, Target const&) {}));
    classes.push_back(
        bareBody("anything at all", [](DBusMessage* m, Target const& t) { appendAnything(m, t.random); }));
    classes.push_back(bareBody("no type name", [](DBusMessage* m, Target const&) {
        putInt(m, -2, 0);
        putString(m, -1, "ctor");
    }));
    classes.push_back(bareBody("no actor id", [](DBusMessage* m, Target const&) {
        putString(m, -4, OWN_TYPE);
        putString(m, -1, "ctor");
    }));
    classes.push_back(bareBody("no function name", [](DBusMessage* m, Target const&) {
        putString(m, -4, OWN_TYPE);
        putInt(m, -2, 0);
    }));
    classes.push_back(illFormed("an integer as type name", [](DBusMessage* m, Target const&) { putInt(m, -4, 1); }));
    classes.push_back(illFormed("a text as actor id", [](DBusMessage* m, Target const&) { putString(m, -2, "0"); }));
    classes.push_back(illFormed("bytes as actor id", [](DBusMessage* m, Target const&) {
        putBytes(m, -2, {0, 0, 0, 0}, 1);
    }));
    classes.push_back(
        illFormed("a C string as function name", [](DBusMessage* m, Target const&) { putCString(m, -1, "ctor"); }));
    classes.push_back(
        illFormed("bytes as function name", [](DBusMessage* m, Target const&) { putBytes(m, -1, {'c'}, 0); }));
}

void addOtherKinds(std::vector<SHostileClass>& classes)
{
    classes.push_back(ignored("a signal with nothing in it", [](Target const& t) { return rawSignal(t.server); }));
    classes.push_back(ignored("a signal of an unknown actor", [](Target const& t) {
        MessagePtr message = rawSignal(t.server);
        putInt(message.get(), -2, NEVER_MADE);
        putString(message.get(), -1, "OnStep");
        return message;
    }));
    classes.push_back(ignored("an ill-formed signal to everybody", [](Target const& t) {
        MessagePtr message = rawSignal(":1." + std::to_string(t.random() % 16));
        appendAnything(message.get(), t.random);
        return message;
    }));
    classes.push_back(ignored("a signal of an unknown callback to everybody", [](Target const& t) {
        MessagePtr message = rawSignal(":1." + std::to_string(t.random() % 16));
        putInt(message.get(), -2, static_cast<int>(t.random() % 4));
        putString(message.get(), -1, "OnNothing");
        return message;
    }));
    classes.push_back(ignored("a return to nothing", [](Target const& t) {
        MessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
        dbus_message_set_destination(message.get(), t.server.c_str());
        dbus_message_set_reply_serial(message.get(), 1 + static_cast<dbus_uint32_t>(t.random() % 100));
        return message;
    }));
    classes.push_back(ignored("an error to nothing", [](Target const& t) {
        MessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
        dbus_message_set_error_name(message.get(), DBUS_ERROR_FAILED);
        dbus_message_set_destination(message.get(), t.server.c_str());
        dbus_message_set_reply_serial(message.get(), 1 + static_cast<dbus_uint32_t>(t.random() % 100));
        return message;
    }));
    classes.push_back(ignored("an ill-formed call that wants no answer", [](Target const& t) {
        MessagePtr message = rawCall(t.server);
        appendAnything(message.get(), t.random);
        dbus_message_set_no_reply(message.get(), TRUE);
        return message;
    }));
    classes.push_back(ignored("a call that wants no answer", [](Target const& t) {
        MessagePtr message = callOfStepper(t, "Steps");
        dbus_message_set_no_reply(message.get(), TRUE);
        return message;
    }));
}

void addBorderlines(std::vector<SHostileClass>& classes)
{
    classes.push_back({"no interface", EFate::Answered, [](Target const& t) {
                           MessagePtr message = callOfStepper(t, "Steps");
                           dbus_message_set_interface(message.get(), nullptr);
                           return message;
                       }});
    classes.push_back({"more arguments than are taken", EFate::Answered, [](Target const& t) {
                           MessagePtr message = callOfStepper(t, "Steps");
                           for (int i = 0; i < 70; ++i)
                           {
                               putInt(message.get(), i, i);
                           }
                           return message;
                       }});
    classes.push_back({"entries that repeat, out of order", EFate::Answered, [](Target const& t) {
                           MessagePtr message = callOfStepper(t, "nothing");
                           putInt(message.get(), -2, 0);
                           putInt(message.get(), -2, t.actorId);
                           putString(message.get(), -1, "Steps");
                           return message;
                       }});
    classes.push_back({"indices from end to end", EFate::Answered, [](Target const& t) {
                           MessagePtr message = callOfStepper(t, "Steps");
                           putInt(message.get(), std::numeric_limits<int>::min(), 0);
                           putInt(message.get(), std::numeric_limits<int>::max(), 0);
                           putString(message.get(), -3, "no connection id");
                           return message;
                       }});
    classes.push_back({"an empty block of bytes of an odd kind", EFate::Answered, [](Target const& t) {
                           MessagePtr message = callOfStepper(t, "Steps");
                           putBytes(message.get(), 0, {}, static_cast<int>(t.random() % 12) - 3);
                           return message;
                       }});
    classes.push_back(senseless("an unknown function", [](Target const& t) { return callOfStepper(t, "Nothing"); }));
    classes.push_back(senseless("an empty function name", [](Target const& t) { return callOfStepper(t, ""); }));
    classes.push_back(senseless("a function name of 64 KiB",
                                [](Target const& t) { return callOfStepper(t, std::string(65536, 'f')); }));
    classes.push_back(senseless("an unknown function of the connection",
                                [](Target const& t) { return callOfConnection(t, "Nothing"); }));
    classes.push_back(senseless("another type of a known actor",
                                [](Target const& t) { return callOf(t, "Nonsense", t.actorId, "Steps"); }));
    classes.push_back(senseless("the connection's type under another id",
                                [](Target const& t) { return callOf(t, OWN_TYPE, NEVER_MADE, "Nothing"); }));
    classes.push_back(senseless("an actor that was never made", [](Target const& t) {
        return callOf(t, STEPPER, std::numeric_limits<int>::min(), "Steps");
    }));
    classes.push_back(senseless("ctor of the connection itself", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "ctor");
        putString(message.get(), 0, OWN_TYPE);
        return message;
    }));
    classes.push_back(senseless("dtor of the connection itself", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "dtor");
        putInt(message.get(), 0, 0);
        return message;
    }));
}

void addWhatHostsMustRefuse(std::vector<SHostileClass>& classes)
{
    classes.push_back(refused("ctor without a type", [](Target const& t) { return callOfConnection(t, "ctor"); }));
    classes.push_back(refused("ctor of an integer", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "ctor");
        putInt(message.get(), 0, 1);
        return message;
    }));
    classes.push_back(refused("ctor of an unknown type", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "ctor");
        putString(message.get(), 0, "Nonsense");
        return message;
    }));
    classes.push_back(refused("dtor without an id", [](Target const& t) { return callOfConnection(t, "dtor"); }));
    classes.push_back(refused("dtor of an unknown id", [](Target const& t) {
        MessagePtr message = callOfConnection(t, "dtor");
        putInt(message.get(), 0, NEVER_MADE + static_cast<int>(t.random() % 1000));
        return message;
    }));
    classes.push_back(refused("an unknown type under an unknown id",
                              [](Target const& t) { return callOf(t, "Nonsense", NEVER_MADE + 1, "Steps"); }));
    classes.push_back(refused("no arguments", [](Target const& t) { return callOfStepper(t, "Step"); }));
    classes.push_back(refused("an argument of another type", [](Target const& t) {
        MessagePtr message = callOfStepper(t, "Burst");
        putString(message.get(), 0, "1");
        return message;
    }));
    classes.push_back(refused("bytes of another kind", [](Target const& t) {
        MessagePtr message = callOfStepper(t, "Echo");
        putBytes(message.get(), 0, {1, 2, 3}, 77);
        return message;
    }));
    classes.push_back(refused("a text of the other kind", [](Target const& t) {
        MessagePtr message = callOfStepper(t, "Step");
        putInt(message.get(), 0, 1);
        putCString(message.get(), 1, "text");
        return message;
    }));
}

} // namespace

std::vector<SHostileClass> const& hostileClasses()
{
    static std::vector<SHostileClass> const& all = *[] {
        auto* const classes = new std::vector<SHostileClass>;
        addOtherHeaders(*classes);
        addIllFormedEntries(*classes);
        addOtherBasicTypes(*classes);
        addWrongReservedEntries(*classes);
        addOtherKinds(*classes);
        addBorderlines(*classes);
        addWhatHostsMustRefuse(*classes);
        return classes;
    }();
    return all;
}
