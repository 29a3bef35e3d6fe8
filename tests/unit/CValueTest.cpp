#include "ExpectAbort.h"
#include "VirtualSlot.h"

#include <nelo_rpc/Log.h>
#include <nelo_rpc/Values.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace nelo_rpc::types;

namespace
{
template <class T>
std::string renderedBinary(T const& content, int kind)
{
    return CBinaryValue(&content, sizeof(content), kind).ToString();
}

std::string renderedBytes(std::vector<unsigned char> const& bytes, int kind)
{
    return CBinaryValue(bytes.data(), static_cast<unsigned>(bytes.size()), kind).ToString();
}

// All of one size, so that one loop can try every class a value may have.
std::vector<std::shared_ptr<CValue>> oneOfEachClass()
{
    return {makeValue<int>(1), makeValue<std::string>("1"), makeValue<char const*>("1"), makeValue<bool>(true),
            std::make_shared<CBinaryValue>("1", 1, binarykind::Bool)};
}

constexpr std::size_t INT_VALUE = 0;
constexpr std::size_t STRING_VALUE = 1;
constexpr std::size_t C_STRING_VALUE = 2;
constexpr std::size_t BOOL_VALUE = 3;
constexpr std::size_t BINARY_VALUE = 4;

char const* const WRONG_TYPE = R"(\[[0-9]+\] wrong type in CValue)";
} // namespace

// ---- class ----

TEST(CValue, IsAnAbstractBaseWithAVirtualDestructor)
{
    EXPECT_TRUE(std::is_abstract_v<CValue>);
    EXPECT_TRUE(std::has_virtual_destructor_v<CValue>);
    EXPECT_TRUE((std::is_base_of_v<CValue, CTypedValue<int>>));
    EXPECT_TRUE((std::is_base_of_v<CValue, CBinaryValue>));
}

#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
TEST(CValue, VirtualOperationsKeepTheirPlacesForCallersCompiledEarlier)
{
    EXPECT_EQ(0, virtualSlotOf(&CValue::ToString)); // the destructor takes the next two
}
#endif

TEST(CValue, HoldsNoDataOfItsOwn)
{
    EXPECT_EQ(sizeof(void*), sizeof(CValue)); // the pointer to its virtual functions
}

TEST(CValue, OfAnApplicationsOwnClassIsDestroyedThroughTheBase)
{
    class COwnValue : public CValue
    {
    public:
        explicit COwnValue(bool& destroyed) : m_destroyed(destroyed) {}
        ~COwnValue() override { m_destroyed = true; }
        std::string ToString() const override { return "own"; }

    private:
        bool& m_destroyed;
    };
    bool destroyed = false;
    std::unique_ptr<CValue> value = std::make_unique<COwnValue>(destroyed);

    EXPECT_EQ("own", value->ToString());
    value.reset();

    EXPECT_TRUE(destroyed);
}

// ---- text of typed values ----

TEST(CTypedValue, OfAnIntRendersItsTypeAndTheDecimalNumber)
{
    EXPECT_EQ("CTypedValue<int> = 42", CTypedValue<int>(42).ToString());
    EXPECT_EQ("CTypedValue<int> = 0", CTypedValue<int>(0).ToString());
    EXPECT_EQ("CTypedValue<int> = -2147483648", CTypedValue<int>(std::numeric_limits<int>::min()).ToString());
    EXPECT_EQ("CTypedValue<int> = 2147483647", CTypedValue<int>(std::numeric_limits<int>::max()).ToString());
}

TEST(CTypedValue, OfAStringRendersTheFullTypeNameAndItsCharacters)
{
    EXPECT_EQ("CTypedValue<std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >> = hello",
              CTypedValue<std::string>("hello").ToString());
}

TEST(CTypedValue, OfAStringRendersBytesBehindAnEmbeddedNul)
{
    std::string const text("a\0b", 3);

    EXPECT_EQ("CTypedValue<std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >> = " + text,
              CTypedValue<std::string>(text).ToString());
}

TEST(CTypedValue, OfACStringRendersTheClassNameAndItsText)
{
    EXPECT_EQ("CTypedValue<nelo_rpc::types::CCString> = hello", CTypedValue<CCString>(CCString("hello")).ToString());
}

TEST(CTypedValue, OfABoolRendersItAsANumber)
{
    EXPECT_EQ("CTypedValue<bool> = 1", CTypedValue<bool>(true).ToString());
    EXPECT_EQ("CTypedValue<bool> = 0", CTypedValue<bool>(false).ToString());
}

TEST(CTypedValue, OfAnEmptyTextRendersNothingBehindTheEqualsSign)
{
    EXPECT_EQ("CTypedValue<nelo_rpc::types::CCString> = ", makeValue<char const*>("")->ToString());
}

// ---- text of binary values ----

TEST(CBinaryValue, OfKind1RendersAnUnsignedNumber)
{
    EXPECT_EQ("CBinaryValue[uint=7]", renderedBinary<std::uint32_t>(7, 1));
    EXPECT_EQ("CBinaryValue[uint=4294967295]", renderedBinary<std::uint32_t>(4294967295U, 1));
}

TEST(CBinaryValue, OfKind2RendersAFloatWithSixDecimals)
{
    EXPECT_EQ("CBinaryValue[float=1.500000]", renderedBinary<float>(1.5F, 2));
    EXPECT_EQ("CBinaryValue[float=-0.250000]", renderedBinary<float>(-0.25F, 2));
}

TEST(CBinaryValue, OfKind3RendersADoubleWithSixDecimals)
{
    EXPECT_EQ("CBinaryValue[double=2.250000]", renderedBinary<double>(2.25, 3));
    EXPECT_EQ("CBinaryValue[double=10000000000.000000]", renderedBinary<double>(1e10, 3));
    EXPECT_EQ("CBinaryValue[double=0.000000]", renderedBinary<double>(1e-9, 3));
}

TEST(CBinaryValue, OfKind4RendersTrueForANonZeroFirstByte)
{
    EXPECT_EQ("CBinaryValue[bool=true]", renderedBytes({1}, 4));
    EXPECT_EQ("CBinaryValue[bool=true]", renderedBytes({2}, 4));
    EXPECT_EQ("CBinaryValue[bool=true]", renderedBytes({0x80, 0}, 4));
}

TEST(CBinaryValue, OfKind4RendersFalseForAZeroFirstByte)
{
    EXPECT_EQ("CBinaryValue[bool=false]", renderedBytes({0}, 4));
    EXPECT_EQ("CBinaryValue[bool=false]", renderedBytes({0, 1}, 4));
}

TEST(CBinaryValue, OfKind5RendersASignedNumber)
{
    EXPECT_EQ("CBinaryValue[enum=3]", renderedBinary<std::int32_t>(3, 5));
    EXPECT_EQ("CBinaryValue[enum=-1]", renderedBinary<std::int32_t>(-1, 5));
}

TEST(CBinaryValue, OfAnyOtherKindRendersItsSize)
{
    std::vector<unsigned char> const twelve(12, 0xAB);

    EXPECT_EQ("CBinaryValue[size=12]", renderedBytes(twelve, 9));
    EXPECT_EQ("CBinaryValue[size=12]", renderedBytes(twelve, 0));
    EXPECT_EQ("CBinaryValue[size=12]", renderedBytes(twelve, 6));
    EXPECT_EQ("CBinaryValue[size=12]", renderedBytes(twelve, -1));
    EXPECT_EQ("CBinaryValue[size=12]", renderedBytes(twelve, std::numeric_limits<int>::min()));
}

TEST(CBinaryValue, LongerThanItsKindNeedsRendersTheFirstBytes)
{
    EXPECT_EQ("CBinaryValue[uint=7]", renderedBytes({7, 0, 0, 0, 9, 9}, 1));
}

// Under AddressSanitizer these also show that nothing behind the bytes is read.
TEST(CBinaryValue, ShorterThanItsKindNeedsRendersMissingBytesAsZero)
{
    EXPECT_EQ("CBinaryValue[uint=7]", renderedBytes({7}, 1)); // little endian: the low byte comes first
    EXPECT_EQ("CBinaryValue[uint=131079]", renderedBytes({7, 0, 2}, 1));
    EXPECT_EQ("CBinaryValue[float=0.000000]", renderedBytes({0, 0, 0}, 2));
    EXPECT_EQ("CBinaryValue[double=0.000000]", renderedBytes({0, 0, 0, 0, 0, 0, 0}, 3));
    EXPECT_EQ("CBinaryValue[enum=255]", renderedBytes({0xFF}, 5));
}

TEST(CBinaryValue, WithoutBytesRendersEveryKindAsZero)
{
    for (void const* bytes : {static_cast<void const*>(nullptr), static_cast<void const*>("x")})
    {
        EXPECT_EQ("CBinaryValue[uint=0]", CBinaryValue(bytes, 0, 1).ToString());
        EXPECT_EQ("CBinaryValue[float=0.000000]", CBinaryValue(bytes, 0, 2).ToString());
        EXPECT_EQ("CBinaryValue[double=0.000000]", CBinaryValue(bytes, 0, 3).ToString());
        EXPECT_EQ("CBinaryValue[bool=false]", CBinaryValue(bytes, 0, 4).ToString());
        EXPECT_EQ("CBinaryValue[enum=0]", CBinaryValue(bytes, 0, 5).ToString());
        EXPECT_EQ("CBinaryValue[size=0]", CBinaryValue(bytes, 0, 0).ToString());
    }
}

TEST(CBinaryValue, OfEveryKindAndSizeUpToSixteenIsRenderedWithoutReadingBeyondItsBytes)
{
    for (int kind = -1; kind <= 9; ++kind)
    {
        for (unsigned size = 0; size <= 16; ++size)
        {
            std::vector<unsigned char> const ones(size, 1);
            std::string const text = renderedBytes(ones, kind);
            EXPECT_EQ(0U, text.find("CBinaryValue[")) << text;
            EXPECT_EQ(']', text.back()) << text;
        }
    }
}

// ---- content of binary values ----

TEST(CBinaryValue, CopiesTheBytesItIsGiven)
{
    char bytes[] = {'a', 0, 'c'};
    CBinaryValue const value(bytes, sizeof(bytes), 9);

    bytes[0] = 'x';

    EXPECT_NE(static_cast<char const*>(bytes), value.GetData());
    EXPECT_EQ(std::string("a\0c", 3), std::string(value.GetData(), value.GetSize()));
}

TEST(CBinaryValue, TellsItsSizeAndKind)
{
    CBinaryValue const value("abcd", 4, -77);

    EXPECT_EQ(4U, value.GetSize());
    EXPECT_EQ(-77, value.GetKind());
}

TEST(CBinaryValue, MayBeMadeOfNullDataWithSizeZero)
{
    CBinaryValue const value(nullptr, 0, 9);

    EXPECT_EQ(0U, value.GetSize());
    EXPECT_EQ(9, value.GetKind());
    EXPECT_EQ("CBinaryValue[size=0]", value.ToString());
}

TEST(CBinaryValue, HoldsABlockOfOneMebibyteUnchanged)
{
    std::vector<unsigned char> bytes(1U << 20U);
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<unsigned char>(i * 31);
    }
    CBinaryValue const value(bytes.data(), static_cast<unsigned>(bytes.size()), 0);

    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(value.GetData(), value.GetSize()));
}

// ---- makeValue ----

TEST(MakeValue, OfAnIntHoldsIt)
{
    auto const value = makeValue<int>(-5);

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<CTypedValue<int>>(value));
    EXPECT_EQ(-5, extract<int>(*value));
}

TEST(MakeValue, OfAStringHoldsACopy)
{
    std::string text = "hello";
    auto const value = makeValue<std::string>(text);
    text[0] = 'J';

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<CTypedValue<std::string>>(value));
    EXPECT_EQ("hello", extract<std::string>(*value));
}

TEST(MakeValue, OfAConstCharacterPointerHoldsAnOwnedCString)
{
    auto const value = makeValue<char const*>("hello");

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<CTypedValue<CCString>>(value));
    EXPECT_STREQ("hello", extract<char const*>(*value));
}

TEST(MakeValue, OfACharacterPointerHoldsAnOwnedCString)
{
    char buffer[] = "hello";
    auto const value = makeValue<char*>(buffer);
    buffer[0] = 'J';

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<CTypedValue<CCString>>(value));
    EXPECT_STREQ("hello", extract<char*>(*value));
}

TEST(MakeValue, OfABoolHoldsIt)
{
    auto const value = makeValue<bool>(true);

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<CTypedValue<bool>>(value));
    EXPECT_TRUE(extract<bool>(*value));
}

TEST(MakeValue, OfACStringHoldsACopyWhosePointersAreOneBuffer)
{
    CCString const original("hello");
    auto const value = makeValue<CCString>(original);
    CCString const& held = extract<CCString>(*value);

    EXPECT_STREQ("hello", held.Get());
    EXPECT_NE(original.Get(), held.Get());
    EXPECT_EQ(static_cast<char const*>(held.Get()), held.GetConst());
}

// ---- hasType ----

TEST(HasType, OfAnIntHoldsForAnIntOnly)
{
    auto const values = oneOfEachClass();
    for (std::size_t i = 0; i <= BINARY_VALUE; ++i)
    {
        EXPECT_EQ(i == INT_VALUE, hasType<int>(*values[i])) << values[i]->ToString();
    }
}

TEST(HasType, OfAStringHoldsForAStringOnly)
{
    auto const values = oneOfEachClass();
    for (std::size_t i = 0; i <= BINARY_VALUE; ++i)
    {
        EXPECT_EQ(i == STRING_VALUE, hasType<std::string>(*values[i])) << values[i]->ToString();
    }
}

TEST(HasType, OfBothCharacterPointersAndOfCStringHoldsForACStringOnly)
{
    auto const values = oneOfEachClass();
    for (std::size_t i = 0; i <= BINARY_VALUE; ++i)
    {
        EXPECT_EQ(i == C_STRING_VALUE, hasType<char*>(*values[i])) << values[i]->ToString();
        EXPECT_EQ(i == C_STRING_VALUE, hasType<char const*>(*values[i])) << values[i]->ToString();
        EXPECT_EQ(i == C_STRING_VALUE, hasType<CCString>(*values[i])) << values[i]->ToString();
    }
}

TEST(HasType, OfABoolHoldsForATypedBoolOnlyAndNotForABinaryOne)
{
    auto const values = oneOfEachClass();
    for (std::size_t i = 0; i <= BINARY_VALUE; ++i)
    {
        EXPECT_EQ(i == BOOL_VALUE, hasType<bool>(*values[i])) << values[i]->ToString();
    }
}

TEST(HasType, OfBothCharacterPointersHoldsForAValueMadeOfEither)
{
    char buffer[] = "x";
    for (auto const& value : {makeValue<char*>(buffer), makeValue<char const*>("x")})
    {
        EXPECT_TRUE(hasType<char*>(*value));
        EXPECT_TRUE(hasType<char const*>(*value));
    }
}

// ---- extract ----

TEST(Extract, GivesAReferenceToTheHeldValue)
{
    auto const number = makeValue<int>(5);
    auto const text = makeValue<std::string>("hello");
    auto const flag = makeValue<bool>(true);

    EXPECT_EQ(&extract<int>(*number), &extract<int>(*number));
    EXPECT_EQ(&extract<std::string>(*text), &extract<std::string>(*text));
    EXPECT_EQ(&extract<bool>(*flag), &extract<bool>(*flag));
}

TEST(Extract, OfBothCharacterPointersPointsToTheSameOwnedCopyAndNotToTheCallersBuffer)
{
    char buffer[] = "x";
    auto const value = makeValue<char const*>(buffer);

    EXPECT_EQ(static_cast<char const*>(extract<char*>(*value)), extract<char const*>(*value));
    EXPECT_NE(static_cast<char const*>(buffer), extract<char const*>(*value));
    EXPECT_NE(static_cast<char*>(buffer), extract<char*>(*value));
    EXPECT_STREQ("x", extract<char*>(*value));
}

TEST(Extract, OfCharacterPointersRefersToThePointersOfTheHeldCString)
{
    auto const value = makeValue<char const*>("x");
    CCString const& held = extract<CCString>(*value);

    EXPECT_EQ(&held.Get(), &extract<char*>(*value));
    EXPECT_EQ(&held.GetConst(), &extract<char const*>(*value));
}

TEST(ExtractDeathTest, OfAnIntFromAStringLogsAndAborts)
{
    auto const value = makeValue<std::string>("5");
    EXPECT_ABORT(extract<int>(*value), WRONG_TYPE);
}

TEST(ExtractDeathTest, OfAnIntFromAnyOtherClassAborts)
{
    auto const values = oneOfEachClass();
    for (std::size_t const i : {C_STRING_VALUE, BOOL_VALUE, BINARY_VALUE})
    {
        EXPECT_ABORT(extract<int>(*values[i]), WRONG_TYPE);
    }
}

TEST(ExtractDeathTest, OfAStringFromAnyOtherClassAborts)
{
    auto const values = oneOfEachClass();
    for (std::size_t const i : {INT_VALUE, C_STRING_VALUE, BOOL_VALUE, BINARY_VALUE})
    {
        EXPECT_ABORT(extract<std::string>(*values[i]), WRONG_TYPE);
    }
}

TEST(ExtractDeathTest, OfABoolIsStrictAndAbortsOnEveryOtherClassABinaryBoolIncluded)
{
    auto const values = oneOfEachClass();
    for (std::size_t const i : {INT_VALUE, STRING_VALUE, C_STRING_VALUE, BINARY_VALUE})
    {
        EXPECT_ABORT(extract<bool>(*values[i]), WRONG_TYPE);
    }
}

TEST(ExtractDeathTest, OfCStringsFromAnyOtherClassAborts)
{
    auto const values = oneOfEachClass();
    for (std::size_t const i : {INT_VALUE, STRING_VALUE, BOOL_VALUE, BINARY_VALUE})
    {
        EXPECT_ABORT(extract<CCString>(*values[i]), WRONG_TYPE);
        EXPECT_ABORT(extract<char*>(*values[i]), WRONG_TYPE);
        EXPECT_ABORT(extract<char const*>(*values[i]), WRONG_TYPE);
    }
}

TEST(ExtractDeathTest, OfAWrongTypeLogsOneLineAtFatalLevel)
{
    auto const value = makeValue<std::string>("5");
    EXPECT_ABORT(
        {
            nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel level, std::string const& line) {
                std::fprintf(stderr, "<%d|%s>", static_cast<int>(level), line.c_str());
            });
            extract<int>(*value);
        },
        R"(^<3\|\[[0-9]+\] wrong type in CValue>$)");
}

// ---- defaultReturnValue, toString ----

TEST(DefaultReturnValue, IsTheValueInitialisedType)
{
    EXPECT_EQ(0, defaultReturnValue<int>());
    EXPECT_EQ(0U, defaultReturnValue<unsigned>());
    EXPECT_FALSE(defaultReturnValue<bool>());
    EXPECT_EQ(0.0, defaultReturnValue<double>());
    EXPECT_EQ("", defaultReturnValue<std::string>());
    EXPECT_EQ(nullptr, defaultReturnValue<char const*>());
    EXPECT_TRUE(defaultReturnValue<std::vector<std::uint8_t>>().empty());
}

TEST(DefaultReturnValue, OfACStringIsAnOwnedEmptyText)
{
    CCString const text = defaultReturnValue<CCString>();

    ASSERT_NE(nullptr, text.Get());
    EXPECT_STREQ("", text.Get());
    EXPECT_STREQ("", text.GetConst());
}

TEST(ToString, OfANullPointerIsTheEmptyString)
{
    EXPECT_EQ("", toString(nullptr));
    EXPECT_EQ("", toString(static_cast<char const*>(nullptr)));
}

TEST(ToString, OfAText)
{
    EXPECT_EQ("hello", toString("hello"));
}

// ---- threads ----

TEST(CValue, MayBeReadFromManyThreadsAtOnce)
{
    auto const values = oneOfEachClass();
    std::vector<std::string> expected;
    for (auto const& value : values)
    {
        expected.push_back(value->ToString());
    }

    std::vector<std::thread> readers;
    std::vector<std::vector<std::string>> seen(4);
    for (auto& texts : seen)
    {
        readers.emplace_back([&values, &texts] {
            for (auto const& value : values)
            {
                auto const shared = value; // the count of references is used by all threads as well
                texts.push_back(shared->ToString());
            }
        });
    }
    for (std::thread& reader : readers)
    {
        reader.join();
    }

    for (auto const& texts : seen)
    {
        EXPECT_EQ(expected, texts);
    }
}
