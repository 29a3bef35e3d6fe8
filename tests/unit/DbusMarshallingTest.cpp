#include "CLogCapture.h"
#include "ExpectAbort.h"

#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

using namespace nelo_rpc::types;
using namespace nelo_rpc::dbus;
using nelo_rpc::log::ELevel;

namespace
{

struct SUnref
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, SUnref>;

constexpr char const* DESTINATION = "org.example.climate";
using Bytes = std::pair<char const*, unsigned int>;

MessagePtr emptyMessage()
{
    return MessagePtr(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
}

MessagePtr filled(CValueList const& list)
{
    MessagePtr message = emptyMessage();
    fillDbusMessage(list, message.get());
    return message;
}

std::string signatureOf(MessagePtr const& message)
{
    return dbus_message_get_signature(message.get());
}

std::string textOf(DBusMessageIter& iter);

std::string textOfBytes(DBusMessageIter& array)
{
    std::string text = "[";
    DBusMessageIter element;
    dbus_message_iter_recurse(&array, &element);
    for (; dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID; dbus_message_iter_next(&element))
    {
        text += (text.size() > 1 ? " " : "") + textOf(element);
    }
    return text + "]";
}

std::string textOf(DBusMessageIter& iter)
{
    DBusBasicValue value{};
    switch (dbus_message_iter_get_arg_type(&iter))
    {
    case DBUS_TYPE_INT32:
        dbus_message_iter_get_basic(&iter, &value);
        return std::to_string(value.i32);
    case DBUS_TYPE_BYTE:
        dbus_message_iter_get_basic(&iter, &value);
        return std::to_string(static_cast<int>(value.byt));
    case DBUS_TYPE_STRING:
        dbus_message_iter_get_basic(&iter, &value);
        return '\'' + std::string(value.str) + '\'';
    case DBUS_TYPE_ARRAY:
        return textOfBytes(iter);
    default:
        return "?";
    }
}

/// Signature and arguments, such as "iis: 0 1 'x'".
std::string textOf(MessagePtr const& message)
{
    std::string text = signatureOf(message) + ":";
    DBusMessageIter iter;
    if (dbus_message_iter_init(message.get(), &iter) != 0)
    {
        do
        {
            text += ' ' + textOf(iter);
        } while (dbus_message_iter_next(&iter) != 0);
    }
    return text;
}

std::string bodyOf(CValueList const& list)
{
    return textOf(filled(list));
}

CValueList only(int index, std::shared_ptr<CValue> value)
{
    return CValueList{{index, std::move(value)}};
}

std::shared_ptr<CValue> binary(std::string const& bytes, int kind)
{
    return std::make_shared<CBinaryValue>(bytes.data(), static_cast<unsigned>(bytes.size()), kind);
}

CBinaryValue const& asBinary(CValueList const& list, int index)
{
    return dynamic_cast<CBinaryValue const&>(*list.at(index));
}

std::string bytesOf(CBinaryValue const& value)
{
    return std::string(value.GetData(), value.GetSize());
}

CValueList listOfEveryClass()
{
    return CValueList{{-1, makeValue<std::string>("name")},
                      {0, makeValue<int>(-7)},
                      {1, makeValue<std::string>("text")},
                      {2, makeValue<char const*>("c text")},
                      {5, binary(std::string("a\0b", 3), 9)}};
}

/// A value of an application's own that no tag stands for.
class CForeignValue : public CValue
{
public:
    std::string ToString() const override { return "foreign"; }
};

/// Appends arguments of any type to a body, to make the ones that a peer should never send.
class CBody
{
public:
    CBody() : m_message(emptyMessage()) { dbus_message_iter_init_append(m_message.get(), &m_iter); }

    CBody& Int(int value) { return Basic(DBUS_TYPE_INT32, &value); }
    CBody& Text(char const* value) { return Basic(DBUS_TYPE_STRING, &value); }
    CBody& Basic(int type, void const* value)
    {
        dbus_message_iter_append_basic(&m_iter, type, value);
        return *this;
    }
    CBody& Blob(std::string const& bytes)
    {
        char const* const data = bytes.data();
        DBusMessageIter array;
        dbus_message_iter_open_container(&m_iter, DBUS_TYPE_ARRAY, "y", &array);
        dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &data, static_cast<int>(bytes.size()));
        dbus_message_iter_close_container(&m_iter, &array);
        return *this;
    }
    CBody& Container(int type, char const* contained, std::function<void(DBusMessageIter&)> const& fill)
    {
        DBusMessageIter inner;
        dbus_message_iter_open_container(&m_iter, type, contained, &inner);
        fill(inner);
        dbus_message_iter_close_container(&m_iter, &inner);
        return *this;
    }
    CBody& Add(std::function<void(CBody&)> const& add)
    {
        add(*this);
        return *this;
    }

    CValueList Read() const { return dbusMessageToValueList(m_message.get()); }
    DBusMessage* Message() const { return m_message.get(); }

private:
    MessagePtr m_message;
    DBusMessageIter m_iter;
};

/// An argument of some type, by the type's signature.
struct SArgument
{
    char const* signature;
    std::function<void(CBody&)> add;
};

template <class T>
SArgument basicArgument(char const* signature, T value)
{
    return {signature, [=](CBody& body) { body.Basic(signature[0], &value); }};
}

void appendInt(DBusMessageIter& iter)
{
    dbus_int32_t const one = 1;
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_INT32, &one);
}

void appendNothing(DBusMessageIter& /*iter*/) {}

/// One argument of every type that D-Bus knows (file descriptors, which need a connection to travel, left out).
std::vector<SArgument> argumentsOfEveryType()
{
    auto const entry = [](DBusMessageIter& dict) {
        DBusMessageIter pair;
        dbus_message_iter_open_container(&dict, DBUS_TYPE_DICT_ENTRY, nullptr, &pair);
        appendInt(pair);
        appendInt(pair);
        dbus_message_iter_close_container(&dict, &pair);
    };
    auto const container = [](char const* signature, int type, char const* contained, auto fill) {
        return SArgument{signature, [=](CBody& body) { body.Container(type, contained, fill); }};
    };
    return {basicArgument<unsigned char>("y", 1),
            basicArgument<dbus_bool_t>("b", 1),
            basicArgument<dbus_int16_t>("n", 1),
            basicArgument<dbus_uint16_t>("q", 1),
            basicArgument<dbus_int32_t>("i", 1),
            basicArgument<dbus_uint32_t>("u", 1),
            basicArgument<dbus_int64_t>("x", -1),
            basicArgument<dbus_uint64_t>("t", std::numeric_limits<dbus_uint64_t>::max()),
            basicArgument<double>("d", 1.5),
            basicArgument<char const*>("s", "text"),
            basicArgument<char const*>("o", "/path"),
            basicArgument<char const*>("g", "ii"),
            {"ay", [](CBody& body) { body.Blob("bytes"); }},
            container("ai", DBUS_TYPE_ARRAY, "i", &appendInt),
            container("as", DBUS_TYPE_ARRAY, "s", &appendNothing),
            container("aay", DBUS_TYPE_ARRAY, "ay", &appendNothing),
            container("a{ii}", DBUS_TYPE_ARRAY, "{ii}", entry),
            container("(i)", DBUS_TYPE_STRUCT, nullptr, &appendInt),
            container("v", DBUS_TYPE_VARIANT, "i", &appendInt)};
}

/// Matches a death that was ours: a line with a thread id, and no complaint of the bus library or a sanitizer.
struct SFatalLineOfOurs
{
    using is_gtest_matcher = void;

    bool MatchAndExplain(std::string const& output, std::ostream* /*listener*/) const
    {
        return std::regex_search(output, std::regex(R"((^|\n)\[\d+\] )")) &&
               output.find("arguments to dbus_") == std::string::npos &&
               output.find("D-Bus library") == std::string::npos && output.find("Sanitizer") == std::string::npos;
    }
    void DescribeTo(std::ostream* stream) const { *stream << "has a fatal line of the library and no other complaint"; }
    void DescribeNegationTo(std::ostream* stream) const { *stream << "has no fatal line, or another complaint"; }
};

::testing::Matcher<std::string const&> fatalLineOfOurs()
{
    return SFatalLineOfOurs();
}

/// Reading the body must end in a fatal line for every type of argument at the open place but the right one.
void expectFatalForEveryTypeBut(std::string const& right, std::function<void(CBody&)> const& before,
                                std::function<void(CBody&)> const& after)
{
    for (SArgument const& argument : argumentsOfEveryType())
    {
        SCOPED_TRACE(argument.signature);
        CBody body;
        body.Add(before).Add(argument.add).Add(after);
        ASSERT_NE(std::string::npos, std::string(dbus_message_get_signature(body.Message())).find(argument.signature));
        if (right == argument.signature)
        {
            EXPECT_EQ(1U, body.Read().size());
        }
        else
        {
            EXPECT_ABORT(body.Read(), fatalLineOfOurs());
        }
    }
}

void nothing(CBody& /*body*/) {}

std::string const INVALID_UTF8 = "caf\xE9";
constexpr unsigned int MAX_ARRAY = 64U * 1024 * 1024;
constexpr int MAX_INT_ENTRIES = 85; // of three characters each in a signature, which has at most 255

CValueList ints(int count)
{
    CValueList list;
    for (int i = 0; i < count; ++i)
    {
        list[i - 40] = makeValue<int>(i * i);
    }
    return list;
}

} // namespace

// ---- message kinds ----

TEST(ValueListToFunctionCall, MakesAMethodCallToTheDestination)
{
    MessagePtr const message(valueListToFunctionCall(DESTINATION, only(0, makeValue<int>(7))));

    ASSERT_NE(nullptr, message);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_CALL, dbus_message_get_type(message.get()));
    EXPECT_STREQ(DESTINATION, dbus_message_get_destination(message.get()));
    EXPECT_STREQ("/org/trelin/nelo_rpc", dbus_message_get_path(message.get()));
    EXPECT_STREQ("org.trelin.nelo_rpc.Event", dbus_message_get_interface(message.get()));
    EXPECT_STREQ("Call", dbus_message_get_member(message.get()));
    EXPECT_EQ("iii: 0 0 7", textOf(message));
}

TEST(ValueListToFunctionCall, WantsAReply)
{
    MessagePtr const message(valueListToFunctionCall(DESTINATION, CValueList()));

    EXPECT_FALSE(dbus_message_get_no_reply(message.get()));
}

TEST(ValueListToFunctionCall, TakesAUniqueNameAsDestination)
{
    MessagePtr const message(valueListToFunctionCall(":1.42", CValueList()));

    EXPECT_STREQ(":1.42", dbus_message_get_destination(message.get()));
}

TEST(ValueListToCallback, MakesASignalToTheDestination)
{
    MessagePtr const message(valueListToCallback(":1.42", only(0, makeValue<int>(7))));

    ASSERT_NE(nullptr, message);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_SIGNAL, dbus_message_get_type(message.get()));
    EXPECT_STREQ(":1.42", dbus_message_get_destination(message.get()));
    EXPECT_STREQ("/org/trelin/nelo_rpc", dbus_message_get_path(message.get()));
    EXPECT_STREQ("org.trelin.nelo_rpc.Event", dbus_message_get_interface(message.get()));
    EXPECT_STREQ("Call", dbus_message_get_member(message.get()));
    EXPECT_EQ("iii: 0 0 7", textOf(message));
}

TEST(ValueListToFunctionResult, MakesAMethodReturnToTheCall)
{
    MessagePtr const call(valueListToFunctionCall(DESTINATION, CValueList()));
    dbus_message_set_serial(call.get(), 77);
    dbus_message_set_sender(call.get(), ":1.42");

    MessagePtr const message(valueListToFunctionResult(call.get(), only(0, makeValue<int>(7))));

    ASSERT_NE(nullptr, message);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(message.get()));
    EXPECT_EQ(77U, dbus_message_get_reply_serial(message.get()));
    EXPECT_STREQ(":1.42", dbus_message_get_destination(message.get()));
    EXPECT_EQ(nullptr, dbus_message_get_path(message.get()));
    EXPECT_EQ(nullptr, dbus_message_get_interface(message.get()));
    EXPECT_EQ(nullptr, dbus_message_get_member(message.get()));
    EXPECT_EQ("iii: 0 0 7", textOf(message));
}

TEST(ValueListToFunctionResult, LeavesTheCallAsItWas)
{
    MessagePtr const call(valueListToFunctionCall(DESTINATION, only(0, makeValue<int>(7))));
    dbus_message_set_serial(call.get(), 77);

    MessagePtr const message(valueListToFunctionResult(call.get(), only(1, makeValue<int>(8))));

    EXPECT_EQ("iii: 0 0 7", textOf(call));
}

// ---- bodies ----

TEST(FillDbusMessage, OfAnEmptyListAppendsNothing)
{
    EXPECT_EQ(":", bodyOf(CValueList()));
}

TEST(FillDbusMessage, WritesAnIntWithTagZero)
{
    EXPECT_EQ("iii: 0 0 7", bodyOf(only(0, makeValue<int>(7))));
    EXPECT_EQ("iii: 0 0 -2147483648", bodyOf(only(0, makeValue<int>(std::numeric_limits<int>::min()))));
}

TEST(FillDbusMessage, WritesAStringWithTagOne)
{
    EXPECT_EQ("iis: 1 1 'x'", bodyOf(only(1, makeValue<std::string>("x"))));
    EXPECT_EQ("iis: 1 1 ''", bodyOf(only(1, makeValue<std::string>(""))));
}

TEST(FillDbusMessage, WritesACStringWithTagTwo)
{
    char buffer[] = "x";

    EXPECT_EQ("iis: 1 2 'x'", bodyOf(only(1, makeValue<char const*>("x"))));
    EXPECT_EQ("iis: 1 2 'x'", bodyOf(only(1, makeValue<char*>(buffer))));
    EXPECT_EQ("iis: 1 2 'x'", bodyOf(only(1, makeValue<CCString>(CCString("x")))));
    EXPECT_EQ("iis: 1 2 ''", bodyOf(only(1, makeValue<char const*>(""))));
}

TEST(FillDbusMessage, WritesABinaryValueWithTagThreeAndItsKindBehindTheBytes)
{
    EXPECT_EQ("iiayi: 5 3 [97 0 98] 9", bodyOf(only(5, binary(std::string("a\0b", 3), 9))));
}

TEST(FillDbusMessage, WritesABinaryValueOfLengthZeroAsAnEmptyArray)
{
    EXPECT_EQ("iiayi: 0 3 [] 4", bodyOf(only(0, binary("", 4))));
    EXPECT_EQ("iiayi: 0 3 [] 4", bodyOf(only(0, std::make_shared<CBinaryValue>(nullptr, 0, 4))));
}

TEST(FillDbusMessage, CarriesEveryKindAsItIs)
{
    for (int kind : {0, 1, 6, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    {
        EXPECT_EQ("iiayi: 0 3 [120] " + std::to_string(kind), bodyOf(only(0, binary("x", kind))));
    }
}

TEST(FillDbusMessage, WritesSeveralEntriesOneBehindTheOther)
{
    CValueList const list{{0, makeValue<int>(7)}, {1, makeValue<std::string>("x")}, {5, binary("\1\2", 9)}};

    EXPECT_EQ("iiiiisiiayi: 0 0 7 1 1 'x' 5 3 [1 2] 9", bodyOf(list));
}

TEST(FillDbusMessage, WritesEntriesInAscendingOrderOfTheirIndex)
{
    CValueList list;
    list[5] = makeValue<int>(50);
    list[2] = makeValue<int>(20);
    list[-1] = makeValue<int>(10);

    EXPECT_EQ("iiiiiiiii: -1 0 10 2 0 20 5 0 50", bodyOf(list));
}

TEST(FillDbusMessage, WritesTheLowestAndTheHighestIndex)
{
    CValueList const list{{std::numeric_limits<int>::min(), makeValue<int>(1)},
                          {std::numeric_limits<int>::max(), makeValue<int>(2)}};

    EXPECT_EQ("iiiiii: -2147483648 0 1 2147483647 0 2", bodyOf(list));
}

TEST(FillDbusMessage, AppendsBehindWhatTheMessageHoldsAlready)
{
    CBody body;
    body.Int(99);

    fillDbusMessage(only(0, makeValue<int>(7)), body.Message());

    EXPECT_STREQ("iiii", dbus_message_get_signature(body.Message()));
}

TEST(FillDbusMessage, WritesAStringAndACStringAlikeButForTheTag)
{
    EXPECT_EQ("iis: 3 1 'same'", bodyOf(only(3, makeValue<std::string>("same"))));
    EXPECT_EQ("iis: 3 2 'same'", bodyOf(only(3, makeValue<char const*>("same"))));
}

TEST(FillDbusMessage, WritesAValueOfADerivedClassAsItsBase)
{
    class CNamedInt : public CTypedValue<int>
    {
    public:
        using CTypedValue<int>::CTypedValue;
        std::string ToString() const override { return "named"; }
    };

    EXPECT_EQ("iii: 0 0 7", bodyOf(only(0, std::make_shared<CNamedInt>(7))));
}

TEST(FillDbusMessage, LeavesTheListAsItWas)
{
    CValueList const list = listOfEveryClass();
    std::string const before = toString(list);

    filled(list);

    EXPECT_EQ(before, toString(list));
    EXPECT_EQ(1, list.at(0).use_count());
}

TEST(FillDbusMessage, OfATypedBoolThrowsBadCast)
{
    EXPECT_THROW(filled(only(0, makeValue<bool>(true))), std::bad_cast);
}

TEST(FillDbusMessage, OfAnApplicationsOwnClassThrowsBadCast)
{
    EXPECT_THROW(filled(only(0, std::make_shared<CForeignValue>())), std::bad_cast);
}

TEST(FillDbusMessage, KeepsTheEntriesThatWereAppendedBeforeItThrew)
{
    MessagePtr const message = emptyMessage();
    CValueList const list{{0, makeValue<int>(7)}, {1, makeValue<bool>(true)}, {2, makeValue<int>(8)}};

    EXPECT_THROW(fillDbusMessage(list, message.get()), std::bad_cast);

    EXPECT_EQ("iii: 0 0 7", textOf(message));
}

TEST(FillDbusMessage, ThrowsThroughEveryBuilder)
{
    CValueList const list = only(0, makeValue<bool>(true));
    MessagePtr const call(valueListToFunctionCall(DESTINATION, CValueList()));
    dbus_message_set_serial(call.get(), 1);

    EXPECT_THROW(valueListToFunctionCall(DESTINATION, list), std::bad_cast);
    EXPECT_THROW(valueListToCallback(DESTINATION, list), std::bad_cast);
    EXPECT_THROW(valueListToFunctionResult(call.get(), list), std::bad_cast);
}

// ---- reading ----

TEST(DbusMessageToValueList, OfANullMessageIsEmpty)
{
    EXPECT_TRUE(dbusMessageToValueList(nullptr).empty());
}

TEST(DbusMessageToValueList, OfAnEmptyBodyIsEmpty)
{
    EXPECT_TRUE(dbusMessageToValueList(emptyMessage().get()).empty());
    EXPECT_TRUE(dbusMessageToValueList(filled(CValueList()).get()).empty());
}

TEST(DbusMessageToValueList, ReadsTagZeroAsAnInt)
{
    CValueList const list = CBody().Int(5).Int(0).Int(-7).Read();

    ASSERT_TRUE(hasType<int>(*list.at(5)));
    EXPECT_EQ(-7, extract<int>(*list.at(5)));
}

TEST(DbusMessageToValueList, ReadsTagOneAsAString)
{
    CValueList const list = CBody().Int(5).Int(1).Text("x").Read();

    ASSERT_TRUE(hasType<std::string>(*list.at(5)));
    EXPECT_EQ("x", extract<std::string>(*list.at(5)));
}

TEST(DbusMessageToValueList, ReadsTagTwoAsACString)
{
    CValueList const list = CBody().Int(5).Int(2).Text("x").Read();

    ASSERT_TRUE(hasType<CCString>(*list.at(5)));
    EXPECT_STREQ("x", extract<char const*>(*list.at(5)));
}

TEST(DbusMessageToValueList, ReadsTagThreeAsABinaryValue)
{
    CValueList const list = CBody().Int(5).Int(3).Blob(std::string("a\0b", 3)).Int(-77).Read();

    EXPECT_EQ(std::string("a\0b", 3), bytesOf(asBinary(list, 5)));
    EXPECT_EQ(-77, asBinary(list, 5).GetKind());
}

TEST(DbusMessageToValueList, ReadsAnEmptyArrayAsABinaryValueOfSizeZero)
{
    CValueList const list = CBody().Int(0).Int(3).Blob("").Int(4).Read();

    EXPECT_EQ(0U, asBinary(list, 0).GetSize());
    EXPECT_EQ(4, asBinary(list, 0).GetKind());
    EXPECT_EQ("{0 = (CBinaryValue[bool=false]) | }", toString(list));
}

TEST(DbusMessageToValueList, RendersABinaryValueThatIsTooShortForItsKind)
{
    // Every received list is rendered into a log line, so this must not read behind the bytes.
    EXPECT_EQ("{0 = (CBinaryValue[uint=7]) | }", toString(CBody().Int(0).Int(3).Blob("\7").Int(1).Read()));
    EXPECT_EQ("{0 = (CBinaryValue[double=0.000000]) | }", toString(CBody().Int(0).Int(3).Blob("").Int(3).Read()));
}

TEST(DbusMessageToValueList, ReadsIndicesInAnyOrder)
{
    CValueList const list = CBody().Int(9).Int(0).Int(90).Int(-4).Int(0).Int(40).Int(0).Int(0).Int(1).Read();

    EXPECT_EQ("{TYPE_NAME = (CTypedValue<int> = 40) | 0 = (CTypedValue<int> = 1) | 9 = (CTypedValue<int> = 90) | }",
              toString(list));
}

TEST(DbusMessageToValueList, KeepsTheLaterValueOfAnIndexThatOccursTwice)
{
    CValueList const list = CBody().Int(3).Int(0).Int(1).Int(4).Int(0).Int(2).Int(3).Int(1).Text("later").Read();

    EXPECT_EQ(2U, list.size());
    EXPECT_EQ("later", extract<std::string>(*list.at(3)));
}

TEST(DbusMessageToValueList, GivesBackAListOfEveryClass)
{
    CValueList const list = listOfEveryClass();

    CValueList const read = dbusMessageToValueList(filled(list).get());

    EXPECT_EQ(toString(list), toString(read));
    EXPECT_EQ(bytesOf(asBinary(list, 5)), bytesOf(asBinary(read, 5)));
    EXPECT_EQ(asBinary(list, 5).GetKind(), asBinary(read, 5).GetKind());
}

TEST(DbusMessageToValueList, GivesBackAStringAndACStringAsTheClassesTheyWere)
{
    CValueList const list{{0, makeValue<std::string>("same")}, {1, makeValue<char const*>("same")}};

    CValueList const read = dbusMessageToValueList(filled(list).get());

    EXPECT_TRUE(hasType<std::string>(*read.at(0)));
    EXPECT_TRUE(hasType<char const*>(*read.at(1)));
}

TEST(DbusMessageToValueList, GivesBackEveryPackedType)
{
    enum class EColour
    {
        Blue = -2
    };
    CValueList const list{
        {0, packValue(4000000000U)},   {1, packValue(1.5F)}, {2, packValue(0.1)},
        {3, packValue(false)},         {4, packValue(true)}, {5, packValue(EColour::Blue)},
        {6, packValue(std::string())}, {7, packValue(-1)},   {8, packValue(std::vector<std::uint8_t>{0, 255})}};

    CValueList const read = dbusMessageToValueList(filled(list).get());

    EXPECT_EQ(4000000000U, unpackAt<unsigned>(read, 0));
    EXPECT_EQ(1.5F, unpackAt<float>(read, 1));
    EXPECT_EQ(0.1, unpackAt<double>(read, 2));
    EXPECT_FALSE(unpackAt<bool>(read, 3));
    EXPECT_TRUE(unpackAt<bool>(read, 4));
    EXPECT_EQ(EColour::Blue, unpackAt<EColour>(read, 5));
    EXPECT_EQ("", unpackAt<std::string>(read, 6));
    EXPECT_EQ(-1, unpackAt<int>(read, 7));
    EXPECT_EQ((std::vector<std::uint8_t>{0, 255}), unpackAt<std::vector<std::uint8_t>>(read, 8));
}

TEST(DbusMessageToValueList, GivesBackTextBeyondAscii)
{
    for (std::string const& text : {std::string("Gr\xC3\xBC\xC3\x9F"), std::string("\xE2\x82\xAC \xF0\x9F\x98\x80"),
                                    std::string("line\nbreak\ttab\x01")})
    {
        CValueList const read = dbusMessageToValueList(
            filled(CValueList{{0, makeValue<std::string>(text)}, {1, makeValue<char const*>(text.c_str())}}).get());

        EXPECT_EQ(text, extract<std::string>(*read.at(0)));
        EXPECT_EQ(text, extract<char const*>(*read.at(1)));
    }
}

TEST(DbusMessageToValueList, GivesBackAMebibyteOfBytesAndOfText)
{
    std::string bytes(1U << 20U, '\0');
    std::string text(1U << 20U, ' ');
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<char>(i * 31 + i / 256);
        text[i] = static_cast<char>('a' + i % 26);
    }

    CValueList const read =
        dbusMessageToValueList(filled(CValueList{{0, binary(bytes, 0)}, {1, makeValue<std::string>(text)}}).get());

    EXPECT_TRUE(bytes == bytesOf(asBinary(read, 0)));
    EXPECT_TRUE(text == extract<std::string>(*read.at(1)));
}

TEST(DbusMessageToValueList, GivesBackAListOfAsManyEntriesAsASignatureHolds)
{
    CValueList const list = ints(MAX_INT_ENTRIES);

    EXPECT_EQ(toString(list), toString(dbusMessageToValueList(filled(list).get())));
}

TEST(DbusMessageToValueList, GivesValuesThatOutliveTheMessage)
{
    auto message = filled(listOfEveryClass());
    CValueList const read = dbusMessageToValueList(message.get());
    message.reset();

    EXPECT_EQ(toString(listOfEveryClass()), toString(read));
    EXPECT_STREQ("c text", extract<char const*>(*read.at(2)));
    EXPECT_EQ(std::string("a\0b", 3), bytesOf(asBinary(read, 5)));
}

TEST(DbusMessageToValueList, MayReadAMessageTwice)
{
    auto const message = filled(listOfEveryClass());

    EXPECT_EQ(toString(dbusMessageToValueList(message.get())), toString(dbusMessageToValueList(message.get())));
}

TEST(DbusMessageToValueList, RunsOnSeveralThreadsAtOnce)
{
    std::vector<std::string> read(4);
    std::vector<std::thread> threads;
    for (std::string& text : read)
    {
        threads.emplace_back([&text] {
            for (int i = 0; i < 50; ++i)
            {
                text = toString(dbusMessageToValueList(filled(listOfEveryClass()).get()));
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    for (std::string const& text : read)
    {
        EXPECT_EQ(toString(listOfEveryClass()), text);
    }
}

// ---- ill-formed bodies ----

TEST(DbusMessageToValueListDeathTest, OfTagFourAbortsNamingTheTagAndTheIndex)
{
    EXPECT_ABORT(CBody().Int(7).Int(4).Int(0).Read(),
                 R"(\[[0-9]+\] Unknown type inside DBusMessage: 4 for map index 7)");
}

TEST(DbusMessageToValueListDeathTest, OfANegativeTagAbortsNamingTheTagAndTheIndex)
{
    EXPECT_ABORT(CBody().Int(-1).Int(-5).Int(0).Read(),
                 R"(\[[0-9]+\] Unknown type inside DBusMessage: -5 for map index -1)");
}

TEST(DbusMessageToValueListDeathTest, OfAnUnknownTagBehindGoodEntriesAborts)
{
    EXPECT_ABORT(CBody().Int(0).Int(0).Int(1).Int(1).Int(1).Text("x").Int(2).Int(100).Read(),
                 "Unknown type inside DBusMessage: 100 for map index 2");
}

TEST(DbusMessageToValueListDeathTest, OfAnotherTypeThanAStringForTagOneAborts)
{
    EXPECT_ABORT(CBody().Int(0).Int(1).Int(5).Read(), R"(\[[0-9]+\] String should be in DBusMessage)");
    EXPECT_ABORT(CBody().Int(0).Int(1).Blob("x").Read(), R"(\[[0-9]+\] String should be in DBusMessage)");
    EXPECT_ABORT(CBody().Int(0).Int(1).Read(), R"(\[[0-9]+\] String should be in DBusMessage)");
}

TEST(DbusMessageToValueListDeathTest, OfAnotherTypeThanAnIntAsIndexAborts)
{
    expectFatalForEveryTypeBut("i", &nothing, [](CBody& body) { body.Int(0).Int(7); });
}

TEST(DbusMessageToValueListDeathTest, OfAnotherTypeThanAnIntAsTagAborts)
{
    // The open place holds 1 where it holds an int, which is the tag of a string.
    expectFatalForEveryTypeBut(
        "i", [](CBody& body) { body.Int(0); }, [](CBody& body) { body.Text("x"); });
}

TEST(DbusMessageToValueListDeathTest, OfAnotherTypeThanAnIntForTagZeroAborts)
{
    expectFatalForEveryTypeBut(
        "i", [](CBody& body) { body.Int(0).Int(0); }, &nothing);
}

TEST(DbusMessageToValueListDeathTest, OfEveryTypeButAStringForTagOneAborts)
{
    expectFatalForEveryTypeBut(
        "s", [](CBody& body) { body.Int(0).Int(1); }, &nothing);
}

TEST(DbusMessageToValueListDeathTest, OfEveryTypeButAStringForTagTwoAborts)
{
    expectFatalForEveryTypeBut(
        "s", [](CBody& body) { body.Int(0).Int(2); }, &nothing);
}

TEST(DbusMessageToValueListDeathTest, OfEveryTypeButBytesForTagThreeAborts)
{
    expectFatalForEveryTypeBut(
        "ay", [](CBody& body) { body.Int(0).Int(3); }, [](CBody& body) { body.Int(9); });
}

TEST(DbusMessageToValueListDeathTest, OfAnotherTypeThanAnIntAsKindAborts)
{
    expectFatalForEveryTypeBut(
        "i", [](CBody& body) { body.Int(0).Int(3).Blob("x"); }, &nothing);
}

TEST(DbusMessageToValueListDeathTest, OfABodyThatEndsInsideAnEntryAborts)
{
    EXPECT_ABORT(CBody().Int(0).Read(), fatalLineOfOurs());
    for (int tag : {0, 1, 2, 3})
    {
        SCOPED_TRACE(tag);
        EXPECT_ABORT(CBody().Int(0).Int(tag).Read(), fatalLineOfOurs());
    }
    EXPECT_ABORT(CBody().Int(0).Int(3).Blob("x").Read(), fatalLineOfOurs());
    EXPECT_ABORT(CBody().Int(0).Int(0).Int(7).Int(1).Read(), fatalLineOfOurs());
}

// ---- bodies of peers that are not trusted ----

namespace
{

/// What is wrong with a body, and whether nothing of it was kept.
void expectCause(std::string const& cause, CBody const& body)
{
    CValueList list = listOfEveryClass();
    EXPECT_EQ(cause, readValueList(body.Message(), list));
    EXPECT_TRUE(list.empty());
}

void expectCauseForEveryTypeBut(std::string const& right, std::string const& cause,
                                std::function<void(CBody&)> const& before, std::function<void(CBody&)> const& after)
{
    for (SArgument const& argument : argumentsOfEveryType())
    {
        SCOPED_TRACE(argument.signature);
        CBody body;
        body.Add(before).Add(argument.add).Add(after);
        if (right != argument.signature)
        {
            expectCause(cause, body);
        }
    }
}

constexpr char const* NO_INTEGER = "Integer should be in DBusMessage";
constexpr char const* NO_STRING = "String should be in DBusMessage";
constexpr char const* NO_BYTES = "Byte array should be in DBusMessage";

} // namespace

TEST(ReadValueList, ReadsWhatTheOtherReaderReads)
{
    CValueList list{{77, makeValue<int>(1)}};

    EXPECT_EQ("", readValueList(filled(listOfEveryClass()).get(), list));
    EXPECT_EQ(toString(listOfEveryClass()), toString(list));
}

TEST(ReadValueList, OfANullMessageOrAnEmptyBodyIsEmpty)
{
    CValueList list = listOfEveryClass();
    EXPECT_EQ("", readValueList(nullptr, list));
    EXPECT_TRUE(list.empty());

    list = listOfEveryClass();
    EXPECT_EQ("", readValueList(emptyMessage().get(), list));
    EXPECT_TRUE(list.empty());
}

TEST(ReadValueList, KeepsTheLaterValueOfAnIndexThatOccursTwice)
{
    CValueList list;
    CBody body;
    body.Int(5).Int(0).Int(1).Int(5).Int(0).Int(2);

    EXPECT_EQ("", readValueList(body.Message(), list));
    EXPECT_EQ("{5 = (CTypedValue<int> = 2) | }", toString(list));
}

TEST(ReadValueList, NamesAnUnknownTagAndItsIndex)
{
    expectCause("Unknown type inside DBusMessage: 4 for map index 7", CBody().Int(7).Int(4).Int(0));
    expectCause("Unknown type inside DBusMessage: -1 for map index -1", CBody().Int(-1).Int(-1));
    expectCause("Unknown type inside DBusMessage: 2147483647 for map index 0",
                CBody().Int(0).Int(std::numeric_limits<int>::max()).Int(0));
}

TEST(ReadValueList, NamesTheTypeThatAnArgumentShouldHave)
{
    auto const head = [](int tag) { return [tag](CBody& body) { body.Int(0).Int(tag); }; };
    expectCauseForEveryTypeBut("i", NO_INTEGER, &nothing, [](CBody& body) { body.Int(0).Int(7); });
    expectCauseForEveryTypeBut(
        "i", NO_INTEGER, [](CBody& body) { body.Int(0); }, [](CBody& body) { body.Text("x"); });
    expectCauseForEveryTypeBut("i", NO_INTEGER, head(0), &nothing);
    expectCauseForEveryTypeBut("s", NO_STRING, head(1), &nothing);
    expectCauseForEveryTypeBut("s", NO_STRING, head(2), &nothing);
    expectCauseForEveryTypeBut("ay", NO_BYTES, head(3), [](CBody& body) { body.Int(9); });
    expectCauseForEveryTypeBut(
        "i", NO_INTEGER, [](CBody& body) { body.Int(0).Int(3).Blob("x"); }, &nothing);
}

TEST(ReadValueList, NamesWhatABodyLacksThatEndsInsideAnEntry)
{
    expectCause(NO_INTEGER, CBody().Int(0));
    expectCause(NO_INTEGER, CBody().Int(0).Int(0));
    expectCause(NO_STRING, CBody().Int(0).Int(1));
    expectCause(NO_STRING, CBody().Int(0).Int(2));
    expectCause(NO_BYTES, CBody().Int(0).Int(3));
    expectCause(NO_INTEGER, CBody().Int(0).Int(3).Blob("x"));
}

TEST(ReadValueList, KeepsNothingOfABodyThatBeginsWell)
{
    expectCause(NO_INTEGER, CBody().Int(0).Int(0).Int(7).Int(1).Int(1).Text("x").Text("trailing"));
    expectCause(NO_INTEGER, CBody().Int(0).Int(0).Int(7).Int(1));
}

TEST(ReadValueList, ReadsABodyOfArgumentsInAnyOrderOrSaysWhyNot)
{
    std::vector<SArgument> const arguments = argumentsOfEveryType();
    std::mt19937 random(20240917); // the same bodies in every run
    int read = 0;
    int refused = 0;
    for (int round = 0; round < 20000; ++round)
    {
        CBody body;
        for (auto count = random() % 9; count > 0; --count)
        {
            // Mostly what a body is made of, so that the walk gets on, and tags that it knows.
            auto const kind = random() % 8;
            if (kind < 5)
            {
                body.Int(static_cast<int>(random() % 5));
            }
            else
            {
                body.Add(kind == 5 ? [](CBody& b) { b.Text("x"); } : arguments[random() % arguments.size()].add);
            }
        }
        CValueList list;
        std::string const cause = readValueList(body.Message(), list);
        if (cause.empty())
        {
            ++read;
            ASSERT_EQ(toString(body.Read()), toString(list));
        }
        else
        {
            ++refused;
            ASSERT_TRUE(list.empty());
        }
    }
    EXPECT_GT(read, 1000);
    EXPECT_GT(refused, 1000);
}

TEST(ReadValueList, LogsNoErrorOfItsOwn)
{
    CLogCapture log;
    expectCause(NO_INTEGER, CBody().Text("x"));

    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
    EXPECT_TRUE(log.Texts(ELevel::Fatal).empty());
}

// ---- elements ----

TEST(DbusMessageGet, ReadsTheArgumentAndAdvances)
{
    CBody const body = std::move(CBody().Int(-5).Text("string").Text("c string").Blob("bytes").Int(6));
    DBusMessageIter iter;
    ASSERT_TRUE(dbus_message_iter_init(body.Message(), &iter));

    EXPECT_EQ(-5, dbusMessageGet<int>(&iter));
    EXPECT_EQ("string", dbusMessageGet<std::string>(&iter));
    EXPECT_STREQ("c string", dbusMessageGet<char*>(&iter));
    auto const [data, size] = dbusMessageGet<Bytes>(&iter);
    EXPECT_EQ("bytes", std::string(data, size));
    EXPECT_EQ(6, dbusMessageGet<int>(&iter));
    EXPECT_EQ(DBUS_TYPE_INVALID, dbus_message_iter_get_arg_type(&iter));
}

TEST(DbusMessageGet, OfAnEmptyArrayHasLengthZero)
{
    CBody const body = std::move(CBody().Blob(""));
    DBusMessageIter iter;
    ASSERT_TRUE(dbus_message_iter_init(body.Message(), &iter));

    EXPECT_EQ(0U, dbusMessageGet<Bytes>(&iter).second);
    EXPECT_EQ(DBUS_TYPE_INVALID, dbus_message_iter_get_arg_type(&iter));
}

TEST(DbusMessageGetDeathTest, OfAStringFromAnotherTypeLogsAndAborts)
{
    CBody const body = std::move(CBody().Int(5));
    DBusMessageIter iter;
    ASSERT_TRUE(dbus_message_iter_init(body.Message(), &iter));

    EXPECT_ABORT(dbusMessageGet<std::string>(&iter), R"(\[[0-9]+\] String should be in DBusMessage)");
}

TEST(DbusMessageGetDeathTest, OfAnotherTypeAborts)
{
    CBody const body = std::move(CBody().Basic(DBUS_TYPE_DOUBLE, std::make_unique<double>(1.5).get()));
    DBusMessageIter iter;
    ASSERT_TRUE(dbus_message_iter_init(body.Message(), &iter));

    EXPECT_ABORT(dbusMessageGet<int>(&iter), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessageGet<char*>(&iter), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessageGet<Bytes>(&iter), fatalLineOfOurs());
}

TEST(DbusMessageGetDeathTest, BehindTheLastArgumentAborts)
{
    CBody const body = std::move(CBody().Int(5));
    DBusMessageIter iter;
    ASSERT_TRUE(dbus_message_iter_init(body.Message(), &iter));
    EXPECT_EQ(5, dbusMessageGet<int>(&iter));

    EXPECT_ABORT(dbusMessageGet<int>(&iter), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessageGet<char*>(&iter), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessageGet<std::string>(&iter), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessageGet<Bytes>(&iter), fatalLineOfOurs());
}

TEST(DbusMessagePut, AppendsOneArgumentOfTheTypeAtATime)
{
    MessagePtr const message = emptyMessage();
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);

    dbusMessagePut(&iter, -5);
    EXPECT_EQ("i: -5", textOf(message));
    dbusMessagePut(&iter, "c string");
    EXPECT_EQ("is: -5 'c string'", textOf(message));
    dbusMessagePut(&iter, std::string("string"));
    EXPECT_EQ("iss: -5 'c string' 'string'", textOf(message));
    dbusMessagePut(&iter, Bytes("\0\1", 2));
    EXPECT_EQ("issay: -5 'c string' 'string' [0 1]", textOf(message));
    dbusMessagePut(&iter, Bytes(nullptr, 0));
    EXPECT_EQ("issayay: -5 'c string' 'string' [0 1] []", textOf(message));
}

// ---- what D-Bus does not carry ----

TEST(DbusMarshallingDeathTest, OfAStringThatIsNotUtf8AbortsWithALineOfItsOwn)
{
    EXPECT_ABORT(filled(only(0, makeValue<std::string>(INVALID_UTF8))), fatalLineOfOurs());
    EXPECT_ABORT(filled(only(0, makeValue<char const*>(INVALID_UTF8.c_str()))), fatalLineOfOurs());
    EXPECT_ABORT(valueListToFunctionCall(DESTINATION, only(0, makeValue<std::string>(INVALID_UTF8))),
                 fatalLineOfOurs());
    EXPECT_ABORT(valueListToCallback(DESTINATION, only(0, makeValue<std::string>(INVALID_UTF8))), fatalLineOfOurs());
}

TEST(DbusMarshallingDeathTest, OfAStringWithAnEmbeddedNulAbortsInsteadOfCuttingIt)
{
    EXPECT_ABORT(filled(only(0, makeValue<std::string>(std::string("a\0b", 3)))), fatalLineOfOurs());
}

TEST(DbusMarshallingDeathTest, OfAnArrayOfMoreThan64MebibytesAborts)
{
    std::string const tooMuch(MAX_ARRAY + 1, 'x');
    auto const list = only(0, binary(tooMuch, 0));

    EXPECT_ABORT(filled(list), fatalLineOfOurs());
}

TEST(DbusMarshallingDeathTest, OfMoreEntriesThanASignatureHoldsAborts)
{
    EXPECT_ABORT(filled(ints(MAX_INT_ENTRIES + 1)), fatalLineOfOurs());
}

TEST(DbusMessagePutDeathTest, OfWhatDbusDoesNotCarryAborts)
{
    MessagePtr const message = emptyMessage();
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);
    std::string const tooMuch(MAX_ARRAY + 1, 'x');

    EXPECT_ABORT(dbusMessagePut(&iter, INVALID_UTF8), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessagePut(&iter, INVALID_UTF8.c_str()), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessagePut(&iter, std::string("a\0b", 3)), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessagePut(&iter, static_cast<char const*>(nullptr)), fatalLineOfOurs());
    EXPECT_ABORT(dbusMessagePut(&iter, Bytes(tooMuch.data(), MAX_ARRAY + 1)), fatalLineOfOurs());
}

TEST(DbusMessagePut, AppendsAnArrayOf64MebibytesWhole)
{
    std::string const much(MAX_ARRAY, 'x');
    MessagePtr const message = emptyMessage();
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);

    dbusMessagePut(&iter, Bytes(much.data(), MAX_ARRAY));

    ASSERT_TRUE(dbus_message_iter_init(message.get(), &iter));
    EXPECT_EQ(MAX_ARRAY, dbusMessageGet<Bytes>(&iter).second);
}

TEST(WhyNotSendable, SaysNothingAboutAListThatCanBeSent)
{
    EXPECT_EQ("", whyNotSendable(CValueList()));
    EXPECT_EQ("", whyNotSendable(listOfEveryClass()));
    EXPECT_EQ("", whyNotSendable(only(0, std::make_shared<CBinaryValue>(nullptr, 0, 4))));
}

TEST(WhyNotSendable, SaysNothingAboutAnyValidUtf8)
{
    for (char const* text :
         {"", "plain", "\xC3\xBC", "\xE2\x82\xAC", "\xEF\xBF\xBD", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF", "\x01\x7F"})
    {
        EXPECT_EQ("", whyNotSendable(only(0, makeValue<std::string>(text)))) << text;
        EXPECT_EQ("", whyNotSendable(only(0, makeValue<char const*>(text)))) << text;
    }
}

TEST(WhyNotSendable, NamesACauseForEveryInvalidUtf8)
{
    for (char const* text : {"\xE9", "caf\xE9", "\x80", "\xC3", "\xC0\x80", "\xE2\x82", "\xED\xA0\x80",
                             "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF", "\xFE", "good \xC3\xBC then \xC3"})
    {
        EXPECT_NE("", whyNotSendable(only(0, makeValue<std::string>(text)))) << text;
        EXPECT_NE("", whyNotSendable(only(0, makeValue<char const*>(text)))) << text;
    }
}

TEST(WhyNotSendable, NamesACauseForAnEmbeddedNul)
{
    EXPECT_NE("", whyNotSendable(only(0, makeValue<std::string>(std::string("a\0b", 3)))));
    EXPECT_NE("", whyNotSendable(only(0, makeValue<std::string>(std::string("\0", 1)))));
    EXPECT_NE("", whyNotSendable(only(0, makeValue<std::string>(std::string("a\0", 2)))));
}

TEST(WhyNotSendable, NamesACauseForMoreEntriesThanASignatureHolds)
{
    CValueList binaries;
    for (int i = 0; i < 51; ++i)
    {
        binaries[i] = packValue(true); // five characters each
    }
    EXPECT_EQ("", whyNotSendable(ints(MAX_INT_ENTRIES)));
    EXPECT_EQ("", whyNotSendable(binaries));

    binaries[51] = packValue(true);
    EXPECT_NE("", whyNotSendable(ints(MAX_INT_ENTRIES + 1)));
    EXPECT_NE("", whyNotSendable(binaries));
}

TEST(WhyNotSendable, LooksAtEveryEntry)
{
    CValueList list = listOfEveryClass();
    list[99] = makeValue<std::string>(INVALID_UTF8);

    EXPECT_NE("", whyNotSendable(list));
}

TEST(WhyNotSendable, NamesACauseForMoreThanABusTakes)
{
    std::string const tooMuch(32U * 1024 * 1024, 'x'); // with a header the message is larger than 32 MiB
    std::string const half(16U * 1024 * 1024, 'x');

    EXPECT_NE("", whyNotSendable(only(0, binary(tooMuch, 0))));
    EXPECT_NE("", whyNotSendable(only(0, makeValue<std::string>(tooMuch))));
    EXPECT_NE("", whyNotSendable(only(0, makeValue<char const*>(tooMuch.c_str()))));
    EXPECT_NE("", whyNotSendable(CValueList{{0, binary(half, 0)}, {1, makeValue<std::string>(half)}}));
}

TEST(WhyNotSendable, SaysNothingAboutAListThatLeavesRoomForTheHeader)
{
    std::string const half(16U * 1024 * 1024 - 4 * 1024, 'x');

    EXPECT_EQ("", whyNotSendable(CValueList{{0, binary(half, 0)}, {1, makeValue<std::string>(half)}}));
}

TEST(WhyNotSendable, LeavesValuesWithoutATagToTheWriter)
{
    EXPECT_EQ("", whyNotSendable(only(0, makeValue<bool>(true))));
}

// ---- log ----

TEST(DbusMarshallingLog, OfWritingShowsTheListAndTheEnd)
{
    CValueList const list = only(-1, makeValue<char const*>("Ping"));
    MessagePtr const message = emptyMessage();
    CLogCapture capture;

    fillDbusMessage(list, message.get());

    std::vector<std::string> const expected{"nelo_rpc::dbus::fillDbusMessage, list={METHOD_NAME = "
                                            "(CTypedValue<nelo_rpc::types::CCString> = Ping) | }",
                                            "nelo_rpc::dbus::fillDbusMessage done"};
    EXPECT_EQ(expected, capture.Texts());
    EXPECT_EQ(expected, capture.Texts(ELevel::Debug));
}

TEST(DbusMarshallingLog, OfEveryBuilderIsThatOfWriting)
{
    std::vector<std::string> const expected{"nelo_rpc::dbus::fillDbusMessage, list={}",
                                            "nelo_rpc::dbus::fillDbusMessage done"};
    MessagePtr const call(valueListToFunctionCall(DESTINATION, CValueList()));
    dbus_message_set_serial(call.get(), 1);
    CLogCapture capture;

    MessagePtr(valueListToFunctionCall(DESTINATION, CValueList()));
    EXPECT_EQ(expected, capture.Texts());
    capture.Clear();
    MessagePtr(valueListToCallback(DESTINATION, CValueList()));
    EXPECT_EQ(expected, capture.Texts());
    capture.Clear();
    MessagePtr(valueListToFunctionResult(call.get(), CValueList()));
    EXPECT_EQ(expected, capture.Texts());
}

TEST(DbusMarshallingLog, OfWritingThatThrowsHasNoEnd)
{
    MessagePtr const message = emptyMessage();
    CLogCapture capture;

    EXPECT_THROW(fillDbusMessage(only(0, makeValue<bool>(true)), message.get()), std::bad_cast);

    EXPECT_EQ((std::vector<std::string>{"nelo_rpc::dbus::fillDbusMessage, list={0 = (CTypedValue<bool> = 1) | }"}),
              capture.Texts());
}

TEST(DbusMarshallingLog, OfReadingShowsTheBeginningAndTheList)
{
    CBody const body = std::move(CBody().Int(0).Int(0).Int(7));
    CLogCapture capture;

    body.Read();

    std::vector<std::string> const expected{
        "nelo_rpc::dbus::dbusMessageToValueList",
        "nelo_rpc::dbus::dbusMessageToValueList done, list = {0 = (CTypedValue<int> = 7) | }"};
    EXPECT_EQ(expected, capture.Texts());
    EXPECT_EQ(expected, capture.Texts(ELevel::Debug));
}

TEST(DbusMarshallingLog, OfReadingAnEmptyBodyShowsTheEmptyList)
{
    MessagePtr const message = emptyMessage();
    CLogCapture capture;

    dbusMessageToValueList(message.get());

    EXPECT_EQ((std::vector<std::string>{"nelo_rpc::dbus::dbusMessageToValueList",
                                        "nelo_rpc::dbus::dbusMessageToValueList done, list = {}"}),
              capture.Texts());
}

TEST(DbusMarshallingLog, OfReadingANullMessageSaysThatTheListIsEmpty)
{
    CLogCapture capture;

    dbusMessageToValueList(nullptr);

    std::vector<std::string> const expected{"nelo_rpc::dbus::dbusMessageToValueList",
                                            "nelo_rpc::dbus::dbusMessageToValueList returning empty list"};
    EXPECT_EQ(expected, capture.Texts());
    EXPECT_EQ(expected, capture.Texts(ELevel::Debug));
}
