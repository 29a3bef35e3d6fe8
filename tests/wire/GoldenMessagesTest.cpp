#include "WireMessage.h"

#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

using namespace nelo_rpc::types;
using namespace nelo_rpc::dbus;

namespace
{

struct SUnref
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, SUnref>;

enum class EMode
{
    Cooling = -2
};

constexpr int NO_REPLY_EXPECTED = 1;
constexpr int METHOD_CALL = 1;

std::string marshalled(MessagePtr const& message)
{
    dbus_message_set_serial(message.get(), 1);
    char* data = nullptr;
    int size = 0;
    if (dbus_message_marshal(message.get(), &data, &size) == 0)
    {
        return {};
    }
    std::string const bytes(data, static_cast<std::size_t>(size));
    dbus_free(data);
    return bytes;
}

/// The result of a call with serial 7.
MessagePtr resultOf(CValueList const& list, char const* caller = nullptr)
{
    MessagePtr const call(valueListToFunctionCall("org.example.climate", CValueList()));
    dbus_message_set_serial(call.get(), 7);
    if (caller != nullptr)
    {
        dbus_message_set_sender(call.get(), caller);
    }
    return MessagePtr(valueListToFunctionResult(call.get(), list));
}

/// The order of header fields is left open by the format; everything else is compared byte by byte.
void expectWrittenAs(std::string const& golden, MessagePtr const& message)
{
    SWireMessage const expected = SWireMessage::Parse(goldenBytes(golden));
    SWireMessage const written = SWireMessage::Parse(marshalled(message));

    EXPECT_EQ(expected.type, written.type);
    if (expected.type == METHOD_CALL) // elsewhere the flag has no meaning
    {
        EXPECT_EQ(expected.flags & NO_REPLY_EXPECTED, written.flags & NO_REPLY_EXPECTED);
    }
    EXPECT_EQ(expected.fields, written.fields);
    EXPECT_EQ(hex(expected.body), hex(written.body));
}

CValueList readFrom(std::string const& golden)
{
    std::string const bytes = goldenBytes(golden);
    MessagePtr const message(dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    if (message == nullptr)
    {
        ADD_FAILURE() << golden << " is not a message";
        return {};
    }
    return dbusMessageToValueList(message.get());
}

std::shared_ptr<CValue> binary(std::string const& bytes, int kind)
{
    return std::make_shared<CBinaryValue>(bytes.data(), static_cast<unsigned>(bytes.size()), kind);
}

/// Written and read; the classes are told apart by their texts, the bytes of binary values are looked at as well.
void expectResultBothWays(std::string const& golden, CValueList const& list)
{
    expectWrittenAs(golden, resultOf(list));

    CValueList const read = readFrom(golden);
    EXPECT_EQ(toString(list), toString(read));
    for (auto const& [index, value] : list)
    {
        auto const* const expected = dynamic_cast<CBinaryValue*>(value.get());
        auto const* const actual = read.count(index) != 0 ? dynamic_cast<CBinaryValue*>(read.at(index).get()) : nullptr;
        ASSERT_EQ(expected == nullptr, actual == nullptr);
        if (expected != nullptr)
        {
            EXPECT_EQ(expected->GetKind(), actual->GetKind());
            EXPECT_EQ(hex(std::string(expected->GetData(), expected->GetSize())),
                      hex(std::string(actual->GetData(), actual->GetSize())));
        }
    }
}

CValueList setTargetCall()
{
    return CValueList{{-4, makeValue<std::string>("Thermostat")},
                      {-2, makeValue<int>(1)},
                      {-1, makeValue<std::string>("SetTarget")},
                      {0, packValue(21.5)}};
}

CValueList onChangedCallback()
{
    return CValueList{{-2, makeValue<int>(1)},
                      {-1, makeValue<std::string>("OnChanged")},
                      {0, packValue(21.5)},
                      {1, packValue(std::string("too warm"))}};
}

} // namespace

// ---- the three kinds of message ----

TEST(GoldenMessages, AFunctionCallIsWrittenAsTheFormatSays)
{
    expectWrittenAs("call.hex", MessagePtr(valueListToFunctionCall("org.example.climate", setTargetCall())));
}

TEST(GoldenMessages, AFunctionCallIsReadAsItWasMeant)
{
    CValueList const read = readFrom("call.hex");

    EXPECT_EQ(toString(setTargetCall()), toString(read));
    EXPECT_EQ(21.5, unpackAt<double>(read, 0));
}

TEST(GoldenMessages, AFunctionResultIsWrittenAsTheFormatSays)
{
    expectWrittenAs("result.hex", resultOf(CValueList{{0, packValue(true)}}, ":1.42"));
}

TEST(GoldenMessages, AFunctionResultIsReadAsItWasMeant)
{
    CValueList const read = readFrom("result.hex");

    EXPECT_EQ(1U, read.size());
    EXPECT_TRUE(unpackAt<bool>(read, 0));
}

TEST(GoldenMessages, ACallbackIsWrittenAsTheFormatSays)
{
    expectWrittenAs("callback.hex", MessagePtr(valueListToCallback(":1.42", onChangedCallback())));
}

TEST(GoldenMessages, ACallbackIsReadAsItWasMeant)
{
    CValueList const read = readFrom("callback.hex");

    EXPECT_EQ(toString(onChangedCallback()), toString(read));
    EXPECT_EQ(21.5, unpackAt<double>(read, 0));
    EXPECT_EQ("too warm", unpackAt<std::string>(read, 1));
}

TEST(GoldenMessages, ACallWithAnEmptyListHasNoBody)
{
    expectWrittenAs("empty_call.hex", MessagePtr(valueListToFunctionCall("org.example.climate", CValueList())));
    EXPECT_TRUE(readFrom("empty_call.hex").empty());
}

TEST(GoldenMessages, AResultWithAnEmptyListHasNoBody)
{
    expectResultBothWays("empty_result.hex", CValueList());
}

// ---- each tag ----

TEST(GoldenMessages, AnIntIsTheSameBothWays)
{
    expectResultBothWays("int.hex", CValueList{{5, makeValue<int>(-2)}});
}

TEST(GoldenMessages, AStringIsTheSameBothWays)
{
    expectResultBothWays("string.hex", CValueList{{0, makeValue<std::string>("Gr\xC3\xBC\xC3\x9F")}});
}

TEST(GoldenMessages, ACStringIsTheSameBothWays)
{
    expectResultBothWays("c_string.hex", CValueList{{0, makeValue<char const*>("Gr\xC3\xBC\xC3\x9F")}});
}

TEST(GoldenMessages, AStringAndACStringDifferInTheTagAlone)
{
    std::string const string = SWireMessage::Parse(marshalled(resultOf({{0, makeValue<std::string>("same")}}))).body;
    std::string cString = SWireMessage::Parse(marshalled(resultOf({{0, makeValue<char const*>("same")}}))).body;
    ASSERT_EQ(2, cString.at(4));

    cString[4] = 1;

    EXPECT_EQ(hex(string), hex(cString));
}

TEST(GoldenMessages, AnEmptyStringIsTheSameBothWays)
{
    expectResultBothWays("empty_string.hex", CValueList{{0, makeValue<std::string>("")}});
}

TEST(GoldenMessages, ABinaryValueIsTheSameBothWays)
{
    expectResultBothWays("binary.hex", CValueList{{5, binary("\xDE\xAD\xBE\xEF\x01", 9)}});
}

TEST(GoldenMessages, ABinaryValueWithoutBytesIsTheSameBothWays)
{
    expectResultBothWays("empty_binary.hex", CValueList{{0, binary("", -1)}});
}

TEST(GoldenMessages, SeveralEntriesAreTheSameBothWays)
{
    expectResultBothWays(
        "three_entries.hex",
        CValueList{{0, makeValue<int>(7)}, {1, makeValue<std::string>("x")}, {5, binary("\xB0\xB1", 9)}});
}

TEST(GoldenMessages, TypedArgumentsAreTheSameBothWays)
{
    expectResultBothWays("typed_arguments.hex", CValueList{{0, packValue(4000000000U)},
                                                           {1, packValue(1.5F)},
                                                           {2, packValue(false)},
                                                           {3, packValue(EMode::Cooling)}});
}

TEST(GoldenMessages, IndicesOutOfOrderAreReadAndTheLaterOfTwoIsKept)
{
    EXPECT_EQ("{METHOD_NAME = (CTypedValue<int> = 1) | 5 = (CTypedValue<int> = 51) | }",
              toString(readFrom("unordered.hex")));
}
