#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace nelo_rpc::types;
using namespace nelo_rpc::dbus;

// The builders lay messages out themselves. Here each is compared, byte by byte, with a message that the bus library
// made and fillDbusMessage() filled.

namespace
{

struct SUnref
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, SUnref>;

constexpr char const* PATH = "/org/trelin/nelo_rpc";
constexpr char const* INTERFACE = "org.trelin.nelo_rpc.Event";
constexpr char const* MEMBER = "Call";

/// The message as it would be sent. Both messages get a serial here, as sending gives them one.
std::string bytesOf(MessagePtr const& message)
{
    dbus_message_set_serial(message.get(), 7);
    char* data = nullptr;
    int size = 0;
    if (dbus_message_marshal(message.get(), &data, &size) == 0)
    {
        ADD_FAILURE() << "no memory";
        return {};
    }
    std::string const bytes(data, static_cast<std::size_t>(size));
    dbus_free(data);
    return bytes;
}

MessagePtr filled(DBusMessage* message, CValueList const& list)
{
    fillDbusMessage(list, message);
    return MessagePtr(message);
}

MessagePtr filledCall(std::string const& destination, CValueList const& list)
{
    return filled(dbus_message_new_method_call(destination.c_str(), PATH, INTERFACE, MEMBER), list);
}

MessagePtr filledCallback(std::string const& destination, CValueList const& list)
{
    DBusMessage* const signal = dbus_message_new_signal(PATH, INTERFACE, MEMBER);
    dbus_message_set_destination(signal, destination.c_str());
    return filled(signal, list);
}

/// A call as it was received, or one that no bus has handed on, which has no sender.
MessagePtr receivedCall(char const* sender, dbus_uint32_t serial)
{
    MessagePtr call(valueListToFunctionCall("org.example.climate", {}));
    dbus_message_set_sender(call.get(), sender);
    dbus_message_set_serial(call.get(), serial);
    return call;
}

void expectEqualMessages(CValueList const& list, std::string const& destination, dbus_uint32_t serial)
{
    EXPECT_EQ(bytesOf(filledCall(destination, list)), bytesOf(MessagePtr(valueListToFunctionCall(destination, list))));
    EXPECT_EQ(bytesOf(filledCallback(destination, list)), bytesOf(MessagePtr(valueListToCallback(destination, list))));
    for (char const* const sender : {destination.c_str(), static_cast<char const*>(nullptr)})
    {
        MessagePtr const call = receivedCall(sender, serial);
        EXPECT_EQ(bytesOf(filled(dbus_message_new_method_return(call.get()), list)),
                  bytesOf(MessagePtr(valueListToFunctionResult(call.get(), list))));
    }
}

std::shared_ptr<CValue> binaryOfSize(std::size_t size, int kind)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
    {
        bytes[i] = static_cast<char>(i * 31);
    }
    return std::make_shared<CBinaryValue>(bytes.data(), static_cast<unsigned int>(size), kind);
}

class CRandomLists
{
public:
    explicit CRandomLists(unsigned int seed) : m_random(seed) {}

    int Int() { return static_cast<int>(m_random()); }
    std::size_t Below(std::size_t bound) { return m_random() % bound; }

    CValueList Next()
    {
        CValueList list;
        for (std::size_t entries = Below(51); entries > 0; --entries)
        {
            list[Below(2) == 0 ? static_cast<int>(Below(40)) - 8 : Int()] = Value();
        }
        return list;
    }

    std::string Name()
    {
        std::string name = Below(2) == 0 ? ":1." + std::to_string(Below(100000)) : "org.example";
        return name + std::string(name.front() == ':' ? 0 : 1, '.') +
               std::string(1 + Below(60), name.front() == ':' ? '7' : 'x');
    }

private:
    /// Mostly short; now and then more than is laid out in one pass.
    std::size_t Size() { return Below(50) == 0 ? Below(100000) : Below(70); }

    std::string Text()
    {
        static std::vector<std::string> const PARTS = {
            "a", "Z", " ", "\n", "\x7F", "\xC3\xBC", "\xE2\x82\xAC", "\xF0\x9F\x8C\xA1"};
        std::string text;
        for (std::size_t parts = Size(); parts > 0; --parts)
        {
            text += PARTS[Below(PARTS.size())];
        }
        return text;
    }

    std::shared_ptr<CValue> Value()
    {
        switch (Below(4))
        {
        case 0:
            return makeValue<int>(Int());
        case 1:
            return makeValue<std::string>(Text());
        case 2:
            return makeValue<char const*>(Text().c_str());
        default:
            return binaryOfSize(Size(), Int());
        }
    }

    std::mt19937 m_random;
};

} // namespace

TEST(MessageLayout, OfAnEmptyListIsThatOfTheBusLibrary)
{
    expectEqualMessages({}, "org.example.climate", 1);
}

TEST(MessageLayout, OfEveryClassOfValueIsThatOfTheBusLibrary)
{
    expectEqualMessages({{-4, makeValue<std::string>("Thermostat")},
                         {-2, makeValue<int>(1)},
                         {-1, makeValue<std::string>("SetTarget")},
                         {0, makeValue<int>(std::numeric_limits<int>::min())},
                         {1, makeValue<std::string>("Gr\xC3\xBC\xC3\x9F")},
                         {2, makeValue<char const*>("c text")},
                         {3, binaryOfSize(3, 9)},
                         {4, binaryOfSize(0, -1)},
                         {std::numeric_limits<int>::max(), packValue(21.5)}},
                        ":1.42", std::numeric_limits<dbus_uint32_t>::max());
}

TEST(MessageLayout, PadsTextAndBytesOfEveryLengthAsTheBusLibraryDoes)
{
    for (std::size_t length = 0; length <= 9; ++length)
    {
        std::string const text(length, 'x');
        expectEqualMessages({{0, makeValue<std::string>(text)}, {1, binaryOfSize(length, 0)}, {2, makeValue<int>(5)}},
                            "org.example.climate" + text, 3);
    }
}

TEST(MessageLayout, OfMuchDataIsThatOfTheBusLibraryWhereverItStands)
{
    for (std::size_t const size : {65535U, 65536U, 65537U, 200000U})
    {
        expectEqualMessages({{0, binaryOfSize(size, 1)}}, ":1.1", 1);
        expectEqualMessages({{0, makeValue<int>(1)}, {1, makeValue<std::string>(std::string(size, 'x'))}}, ":1.1", 1);
        expectEqualMessages({{0, binaryOfSize(size, 1)}, {1, makeValue<int>(1)}, {2, binaryOfSize(5, 1)}}, ":1.1", 1);
    }
}

TEST(MessageLayout, OfAsManyEntriesAsASignatureHoldsIsThatOfTheBusLibrary)
{
    CValueList ints;
    CValueList binaries;
    for (int index = 0; index < 85; ++index)
    {
        ints[index] = makeValue<int>(index);
        if (index < 51)
        {
            binaries[index] = binaryOfSize(3, index);
        }
    }
    expectEqualMessages(ints, ":1.1", 1);
    expectEqualMessages(binaries, ":1.1", 1);
}

TEST(MessageLayout, OfRandomListsIsThatOfTheBusLibrary)
{
    for (unsigned int seed = 1; seed <= 300 && !HasFailure(); ++seed)
    {
        SCOPED_TRACE(seed);
        CRandomLists random(seed);
        CValueList const list = random.Next();
        expectEqualMessages(list, random.Name(), static_cast<dbus_uint32_t>(1 + random.Below(1U << 31U)));
    }
}

TEST(MessageLayout, GivesAMessageThatCanStillBeGivenASerialAndASender)
{
    MessagePtr const message(valueListToFunctionCall("org.example.climate", {{0, makeValue<int>(1)}}));

    EXPECT_EQ(0U, dbus_message_get_serial(message.get()));
    EXPECT_TRUE(dbus_message_set_sender(message.get(), ":1.7"));
    dbus_message_set_serial(message.get(), 12);
    EXPECT_EQ(12U, dbus_message_get_serial(message.get()));
    EXPECT_STREQ(":1.7", dbus_message_get_sender(message.get()));
}
