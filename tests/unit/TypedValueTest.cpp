#include "ExpectAbort.h"

#include <nelo_rpc/Values.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

using namespace nelo_rpc::types;

namespace
{
enum EPlain
{
    PlainZero,
    PlainSeven = 7
};

enum class EScoped
{
    Negative = -3,
    Zero = 0,
    Lowest = std::numeric_limits<int>::min()
};

enum class ESmall : std::uint8_t
{
    Top = 255
};

enum class ESmallSigned : std::int8_t
{
    Bottom = -128
};

struct SPoint
{
    int x;
    int y;
};

char const* const WRONG_TYPE = R"(\[[0-9]+\] wrong type in CValue)";

/// The value as the binary one it is; ends the test when it is none.
CBinaryValue& asBinary(std::shared_ptr<CValue> const& value)
{
    auto* const binary = dynamic_cast<CBinaryValue*>(value.get());
    if (binary == nullptr)
    {
        ADD_FAILURE() << "not a binary value: " << value->ToString();
        std::abort();
    }
    return *binary;
}

std::string bytesOf(CBinaryValue const& value)
{
    return std::string(value.GetData(), value.GetSize());
}

std::shared_ptr<CValue> binary(std::string const& bytes, int kind)
{
    return std::make_shared<CBinaryValue>(bytes.data(), static_cast<unsigned>(bytes.size()), kind);
}

template <class T>
void expectRoundTrip(T const& value)
{
    EXPECT_EQ(value, unpackValue<T>(*packValue<T>(value)));
}
} // namespace

namespace nelo_rpc::types
{
template <>
struct SValueTraits<SPoint>
{
    static std::shared_ptr<CValue> Pack(SPoint const& point)
    {
        return packValue<std::string>(std::to_string(point.x) + "," + std::to_string(point.y));
    }
    static SPoint Unpack(CValue& value)
    {
        auto const text = unpackValue<std::string>(value);
        return {std::stoi(text), std::stoi(text.substr(text.find(',') + 1))};
    }
};
} // namespace nelo_rpc::types

// ---- what each type is packed as ----

TEST(PackValue, OfAnIntIsATypedInt)
{
    EXPECT_EQ("CTypedValue<int> = -5", packValue<int>(-5)->ToString());
    EXPECT_TRUE(hasType<int>(*packValue<int>(-5)));
}

TEST(PackValue, OfAStringIsATypedString)
{
    auto const value = packValue<std::string>("hello");

    ASSERT_TRUE(hasType<std::string>(*value));
    EXPECT_EQ("hello", extract<std::string>(*value));
}

TEST(PackValue, OfACharacterPointerIsATypedCString)
{
    auto const value = packValue<char const*>("hello");

    ASSERT_TRUE(hasType<CCString>(*value));
    EXPECT_STREQ("hello", extract<char const*>(*value));
}

TEST(PackValue, OfACStringIsATypedCString)
{
    auto const value = packValue<CCString>(CCString("hello"));

    ASSERT_TRUE(hasType<CCString>(*value));
    EXPECT_STREQ("hello", extract<char const*>(*value));
}

TEST(PackValue, OfABoolIsOneByteOfKind4)
{
    auto const yes = packValue<bool>(true);
    auto const no = packValue<bool>(false);

    EXPECT_EQ(4, asBinary(yes).GetKind());
    EXPECT_EQ(std::string("\1", 1), bytesOf(asBinary(yes)));
    EXPECT_EQ(4, asBinary(no).GetKind());
    EXPECT_EQ(std::string("\0", 1), bytesOf(asBinary(no)));
    EXPECT_EQ("CBinaryValue[bool=true]", yes->ToString());
    EXPECT_EQ("CBinaryValue[bool=false]", no->ToString());
}

TEST(PackValue, OfAnUnsignedIsFourBytesOfKind1)
{
    auto const value = packValue<unsigned>(0x01020304U);

    EXPECT_EQ(1, asBinary(value).GetKind());
    EXPECT_EQ(std::string("\4\3\2\1", 4), bytesOf(asBinary(value))); // the machine's order, little endian
    EXPECT_EQ("CBinaryValue[uint=4294967295]", packValue<unsigned>(4294967295U)->ToString());
}

TEST(PackValue, OfAFloatIsFourBytesOfKind2)
{
    auto const value = packValue<float>(1.5F);

    EXPECT_EQ(2, asBinary(value).GetKind());
    EXPECT_EQ(4U, asBinary(value).GetSize());
    EXPECT_EQ("CBinaryValue[float=1.500000]", value->ToString());
}

TEST(PackValue, OfADoubleIsEightBytesOfKind3)
{
    auto const value = packValue<double>(-2.25);

    EXPECT_EQ(3, asBinary(value).GetKind());
    EXPECT_EQ(8U, asBinary(value).GetSize());
    EXPECT_EQ("CBinaryValue[double=-2.250000]", value->ToString());
}

TEST(PackValue, OfAnEnumerationIsFourBytesOfKind5)
{
    auto const value = packValue<EPlain>(PlainSeven);

    EXPECT_EQ(5, asBinary(value).GetKind());
    EXPECT_EQ(std::string("\7\0\0\0", 4), bytesOf(asBinary(value)));
    EXPECT_EQ("CBinaryValue[enum=-3]", packValue<EScoped>(EScoped::Negative)->ToString());
}

TEST(PackValue, OfAnEnumerationWithASmallUnderlyingTypeIsFourBytesAllTheSame)
{
    EXPECT_EQ(4U, asBinary(packValue<ESmall>(ESmall::Top)).GetSize());
    EXPECT_EQ("CBinaryValue[enum=255]", packValue<ESmall>(ESmall::Top)->ToString());
    EXPECT_EQ("CBinaryValue[enum=-128]", packValue<ESmallSigned>(ESmallSigned::Bottom)->ToString());
}

TEST(PackValue, OfAByteVectorIsOpaqueBytes)
{
    auto const value = packValue<std::vector<std::uint8_t>>({0, 255, 7});

    EXPECT_EQ(0, asBinary(value).GetKind());
    EXPECT_EQ(std::string("\0\xFF\7", 3), bytesOf(asBinary(value)));
    EXPECT_EQ("CBinaryValue[size=3]", value->ToString());
}

TEST(PackValue, OfAnEmptyByteVectorIsABinaryValueOfSizeZero)
{
    auto const value = packValue<std::vector<std::uint8_t>>({});

    EXPECT_EQ(0U, asBinary(value).GetSize());
    EXPECT_EQ(0, asBinary(value).GetKind());
}

// ---- round trips ----

TEST(UnpackValue, GivesBackEveryIntThatWasPacked)
{
    for (int value : {0, 1, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    {
        expectRoundTrip<int>(value);
    }
}

TEST(UnpackValue, GivesBackEveryUnsignedThatWasPacked)
{
    for (unsigned value : {0U, 1U, 2147483648U, std::numeric_limits<unsigned>::max()})
    {
        expectRoundTrip<unsigned>(value);
    }
}

TEST(UnpackValue, GivesBackBothBools)
{
    expectRoundTrip<bool>(true);
    expectRoundTrip<bool>(false);
}

TEST(UnpackValue, GivesBackEveryFloatThatWasPacked)
{
    for (float value : {0.0F, -1.5F, std::numeric_limits<float>::max(), std::numeric_limits<float>::denorm_min(),
                        std::numeric_limits<float>::infinity()})
    {
        expectRoundTrip<float>(value);
    }
    EXPECT_TRUE(std::isnan(unpackValue<float>(*packValue<float>(std::nanf("")))));
}

TEST(UnpackValue, GivesBackEveryDoubleThatWasPacked)
{
    for (double value : {0.0, -1.5, 0.1, std::numeric_limits<double>::max(), std::numeric_limits<double>::denorm_min(),
                         -std::numeric_limits<double>::infinity()})
    {
        expectRoundTrip<double>(value);
    }
    EXPECT_TRUE(std::isnan(unpackValue<double>(*packValue<double>(std::nan("")))));
    EXPECT_TRUE(std::signbit(unpackValue<double>(*packValue<double>(-0.0))));
}

TEST(UnpackValue, GivesBackEveryEnumeratorThatWasPacked)
{
    expectRoundTrip(PlainZero);
    expectRoundTrip(PlainSeven);
    expectRoundTrip(EScoped::Negative);
    expectRoundTrip(EScoped::Zero);
    expectRoundTrip(EScoped::Lowest);
    expectRoundTrip(ESmall::Top);
    expectRoundTrip(ESmallSigned::Bottom);
}

TEST(UnpackValue, GivesBackEveryStringThatWasPackedWithAllItsBytes)
{
    expectRoundTrip<std::string>("");
    expectRoundTrip<std::string>("hello");
    expectRoundTrip<std::string>(std::string("a\0b\xFF", 4));
}

TEST(UnpackValue, GivesBackAnOwnedCopyOfACString)
{
    auto value = packValue<CCString>(CCString("hello"));
    CCString const text = unpackValue<CCString>(*value);
    value.reset();

    EXPECT_STREQ("hello", text.Get());
}

TEST(UnpackValue, GivesACharacterPointerIntoTheValue)
{
    auto const value = packValue<char const*>("hello");

    EXPECT_EQ(extract<char const*>(*value), unpackValue<char const*>(*value));
}

TEST(UnpackValue, GivesBackEveryByteVectorThatWasPacked)
{
    expectRoundTrip<std::vector<std::uint8_t>>({});
    expectRoundTrip<std::vector<std::uint8_t>>({0, 255, 7});
    expectRoundTrip(std::vector<std::uint8_t>(100000, 0xA5));
}

TEST(UnpackValue, OfABoolIsTrueForEveryNonZeroByte)
{
    EXPECT_TRUE(unpackValue<bool>(*binary("\2", 4)));
    EXPECT_TRUE(unpackValue<bool>(*binary("\x80", 4)));
    EXPECT_FALSE(unpackValue<bool>(*binary(std::string(1, '\0'), 4)));
}

TEST(UnpackValue, ReadsTheFirstBytesOfALongerBinaryValue)
{
    EXPECT_EQ(7U, unpackValue<unsigned>(*binary(std::string("\7\0\0\0\x63", 5), 1)));
    EXPECT_TRUE(unpackValue<bool>(*binary(std::string("\1\0", 2), 4)));
}

// ---- misuse ----

TEST(UnpackValueDeathTest, OfAnIntFromAnotherClassAborts)
{
    EXPECT_ABORT(unpackValue<int>(*makeValue<std::string>("5")), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<int>(*packValue<unsigned>(5)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<int>(*makeValue<bool>(true)), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, OfAStringFromACStringAborts)
{
    EXPECT_ABORT(unpackValue<std::string>(*makeValue<char const*>("x")), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, OfAStringFromABinaryValueAborts)
{
    EXPECT_ABORT(unpackValue<std::string>(*binary("x", 0)), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, OfCStringsFromAStringAborts)
{
    EXPECT_ABORT(unpackValue<char const*>(*makeValue<std::string>("x")), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<CCString>(*makeValue<std::string>("x")), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, OfBinaryTypesFromATypedValueAborts)
{
    EXPECT_ABORT(unpackValue<unsigned>(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<float>(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<double>(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<bool>(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<EScoped>(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<std::vector<std::uint8_t>>(*makeValue<std::string>("x")), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, OfABoolFromATypedBoolAborts)
{
    EXPECT_ABORT(unpackValue<bool>(*makeValue<bool>(true)), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, FromABinaryValueOfAnotherKindAborts)
{
    std::string const bytes(8, '\1');
    EXPECT_ABORT(unpackValue<unsigned>(*binary(bytes, 2)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<float>(*binary(bytes, 3)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<double>(*binary(bytes, 2)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<bool>(*binary(bytes, 0)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<EPlain>(*binary(bytes, 1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<std::vector<std::uint8_t>>(*binary(bytes, 1)), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, FromABinaryValueThatIsTooShortAborts)
{
    EXPECT_ABORT(unpackValue<unsigned>(*binary("abc", 1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<float>(*binary("abc", 2)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<double>(*binary("abcdefg", 3)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<bool>(*binary("", 4)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<EPlain>(*binary("abc", 5)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<ESmall>(*binary("a", 5)), WRONG_TYPE);
}

TEST(UnpackValueDeathTest, FromABinaryValueWithoutDataAborts)
{
    EXPECT_ABORT(unpackValue<unsigned>(*std::make_shared<CBinaryValue>(nullptr, 0, 1)), WRONG_TYPE);
    EXPECT_ABORT(unpackValue<bool>(*std::make_shared<CBinaryValue>(nullptr, 0, 4)), WRONG_TYPE);
}

// ---- entries of a list ----

TEST(UnpackAt, ReadsTheEntryUnderTheIndex)
{
    CValueList const list{
        {-1, makeValue<std::string>("name")}, {0, packValue<double>(1.5)}, {3, packValue<bool>(true)}};

    EXPECT_EQ("name", unpackAt<std::string>(list, -1));
    EXPECT_EQ(1.5, unpackAt<double>(list, 0));
    EXPECT_TRUE(unpackAt<bool>(list, 3));
}

TEST(UnpackAtDeathTest, OfAMissingIndexAborts)
{
    CValueList const list{{1, makeValue<int>(1)}};

    EXPECT_ABORT(unpackAt<int>(list, 0), WRONG_TYPE);
    EXPECT_ABORT(unpackAt<int>(CValueList(), 0), WRONG_TYPE);
}

TEST(UnpackAtDeathTest, OfANullEntryAborts)
{
    CValueList const list{{0, nullptr}};

    EXPECT_ABORT(unpackAt<int>(list, 0), WRONG_TYPE);
}

TEST(UnpackAtDeathTest, OfAnEntryOfAnotherTypeAborts)
{
    CValueList const list{{0, makeValue<int>(1)}};

    EXPECT_ABORT(unpackAt<std::string>(list, 0), WRONG_TYPE);
}

// ---- boolean results of either class ----

TEST(ReadBoolResult, AcceptsATypedBool)
{
    EXPECT_TRUE(readBoolResult(*makeValue<bool>(true)));
    EXPECT_FALSE(readBoolResult(*makeValue<bool>(false)));
}

TEST(ReadBoolResult, AcceptsABinaryBool)
{
    EXPECT_TRUE(readBoolResult(*packValue<bool>(true)));
    EXPECT_FALSE(readBoolResult(*packValue<bool>(false)));
}

TEST(ReadBoolResult, LooksAtTheFirstByteOfABinaryValueOfAnyKind)
{
    EXPECT_TRUE(readBoolResult(*binary("\2", 4)));
    EXPECT_TRUE(readBoolResult(*binary(std::string("\1\0\0\0", 4), 1)));
    EXPECT_TRUE(readBoolResult(*binary("x", 9)));
    EXPECT_FALSE(readBoolResult(*binary(std::string("\0\1", 2), 9)));
}

TEST(ReadBoolResult, TakesAnEmptyBinaryValueAsFalse)
{
    EXPECT_FALSE(readBoolResult(*binary("", 4)));
    EXPECT_FALSE(readBoolResult(*std::make_shared<CBinaryValue>(nullptr, 0, 4)));
}

TEST(ReadBoolResultDeathTest, OfAnyOtherClassAborts)
{
    EXPECT_ABORT(readBoolResult(*makeValue<int>(1)), WRONG_TYPE);
    EXPECT_ABORT(readBoolResult(*makeValue<std::string>("true")), WRONG_TYPE);
    EXPECT_ABORT(readBoolResult(*makeValue<char const*>("true")), WRONG_TYPE);
}

// ---- an application's own type ----

TEST(SValueTraits, SpecialisedForAnApplicationsOwnTypePackAndUnpackIt)
{
    auto const value = packValue(SPoint{3, -4});
    EXPECT_EQ("3,-4", extract<std::string>(*value));

    auto const point = unpackAt<SPoint>(CValueList{{0, value}}, 0);
    EXPECT_EQ(3, point.x);
    EXPECT_EQ(-4, point.y);
}

TEST(SValueTraitsDeathTest, OfAnApplicationsOwnTypeAbortOnAnotherClassLikeAnyOther)
{
    EXPECT_ABORT(unpackValue<SPoint>(*makeValue<int>(1)), WRONG_TYPE);
}
