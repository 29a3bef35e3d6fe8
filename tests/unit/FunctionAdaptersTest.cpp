#include "ExpectAbort.h"

#include <nelo_rpc/FunctionAdapters.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace nelo_rpc::types;
using nelo_rpc::adapt;
using nelo_rpc::argumentCheckFor;
using nelo_rpc::findUnfitArgument;
using nelo_rpc::makeNoVoidFunction;
using nelo_rpc::makeValueListFunction;
using nelo_rpc::ValueListFunction;

namespace
{
enum class EColour
{
    Red = 1,
    Blue = -2
};

struct SSize
{
    int width;
    int height;
};

/// Its traits unpack it from anything.
struct SUndemanding
{
};

char const* const WRONG_TYPE = R"(\[[0-9]+\] wrong type in CValue)";

template <class... Args>
CValueList listOf(Args const&... args)
{
    CValueList list;
    int index = 0;
    ((list[index++] = packValue<Args>(args)), ...);
    return list;
}

/// A function with the given argument types that must not be reached: it ends the process another way than abort().
template <class... Args>
std::function<int(Args...)> unreachable()
{
    return [](Args...) -> int { std::_Exit(3); };
}

class CCounter
{
public:
    int Add(int amount)
    {
        m_total += amount;
        return m_total;
    }
    int Total() const { return m_total; }
    void Reset() { m_total = 0; }
    bool IsAbove(int limit) const noexcept { return m_total > limit; }
    static int Twice(int value) { return 2 * value; }

private:
    int m_total = 0;
};

class CDerivedCounter : public CCounter
{
};

/// The two functions of a connection, in the form in which their adapters were first needed.
class CActorKeeper
{
public:
    int ctor(std::string typeName)
    {
        m_typeName = std::move(typeName);
        return 7;
    }
    void dtor(int actorId) { m_destroyed = actorId; }

    std::string m_typeName;
    int m_destroyed = 0;
};

int sumOfTwo(int a, int b)
{
    return a + b;
}
} // namespace

namespace nelo_rpc::types
{
template <>
struct SValueTraits<SSize>
{
    static std::shared_ptr<CValue> Pack(SSize const& size) { return packValue<int>(size.width * 1000 + size.height); }
    static SSize Unpack(CValue& value)
    {
        int const both = unpackValue<int>(value);
        return {both / 1000, both % 1000};
    }
    static bool Accepts(CValue& value) { return canUnpack<int>(value); }
};

template <>
struct SValueTraits<SUndemanding>
{
    static std::shared_ptr<CValue> Pack(SUndemanding const&) { return packValue<int>(0); }
    static SUndemanding Unpack(CValue&) { return {}; }
};
} // namespace nelo_rpc::types

// ---- adapt ----

TEST(Adapt, ReadsAStringAtIndexZeroAndStoresAnIntAtIndexZero)
{
    std::string seen;
    std::function<int(std::string)> const f = [&](std::string const& text) {
        seen = text;
        return 7;
    };

    CValueList const result = adapt(f, listOf<std::string>("Thermostat"));

    EXPECT_EQ("Thermostat", seen);
    EXPECT_EQ("{0 = (CTypedValue<int> = 7) | }", toString(result));
}

TEST(Adapt, StoresABoolAsOneByteOfKind4)
{
    std::function<bool(int)> const isPositive = [](int value) { return value > 0; };

    CValueList const result = adapt(isPositive, listOf(5));
    auto const* const value = dynamic_cast<CBinaryValue*>(result.at(0).get());

    ASSERT_NE(nullptr, value);
    EXPECT_EQ(4, value->GetKind());
    ASSERT_EQ(1U, value->GetSize());
    EXPECT_EQ(1, value->GetData()[0]);
    EXPECT_EQ("{0 = (CBinaryValue[bool=false]) | }", toString(adapt(isPositive, listOf(-5))));
}

TEST(Adapt, CanBeBoundIntoTheUniformForm)
{
    std::function<int(int)> const square = [](int value) { return value * value; };
    ValueListFunction const uniform = std::bind(&adapt<int, int>, square, std::placeholders::_1);

    EXPECT_EQ("{0 = (CTypedValue<int> = 49) | }", toString(uniform(listOf(7))));
}

TEST(Adapt, IgnoresReservedEntriesAndCopiesNoneOfThem)
{
    std::function<int(int)> const same = [](int value) { return value; };
    CValueList call = listOf(5);
    call[-1] = makeValue<std::string>("same");
    call[-2] = makeValue<int>(1);
    call[-3] = makeValue<int>(2);
    call[-4] = makeValue<std::string>("Type");

    EXPECT_EQ("{0 = (CTypedValue<int> = 5) | }", toString(adapt(same, call)));
}

TEST(Adapt, IgnoresArgumentsThatTheFunctionDoesNotTake)
{
    std::function<int(int)> const same = [](int value) { return value; };
    std::function<int()> const none = [] { return 9; };
    CValueList const call{{0, makeValue<int>(5)}, {1, makeValue<std::string>("more")}, {2, makeValue<bool>(true)}};

    EXPECT_EQ("{0 = (CTypedValue<int> = 5) | }", toString(adapt(same, call)));
    EXPECT_EQ("{0 = (CTypedValue<int> = 9) | }", toString(adapt(none, call)));
}

TEST(Adapt, LeavesTheArgumentsAsTheyWere)
{
    std::function<int(std::string)> const takesItsArgument = [](std::string text) {
        std::string const taken = std::move(text);
        return static_cast<int>(taken.size());
    };
    CValueList const call = listOf<std::string>("a text that is long enough to be moved");
    std::string const before = toString(call);

    adapt(takesItsArgument, call);

    EXPECT_EQ(before, toString(call));
}

TEST(Adapt, MakesANewListForEachCall)
{
    std::function<int(int)> const same = [](int value) { return value; };
    CValueList const first = adapt(same, listOf(1));
    CValueList const second = adapt(same, listOf(2));

    EXPECT_EQ(1, extract<int>(*first.at(0)));
    EXPECT_EQ(2, extract<int>(*second.at(0)));
}

TEST(Adapt, TakesAFunctionWithoutArguments)
{
    std::function<std::string()> const f = [] { return std::string("hello"); };

    EXPECT_EQ("hello", unpackAt<std::string>(adapt(f, CValueList()), 0));
}

TEST(Adapt, ReadsArgumentsFromAscendingIndices)
{
    std::function<std::string(int, std::string, bool, double, std::string, int)> const f =
        [](int a, std::string const& b, bool c, double d, std::string const& e, int g) {
            return std::to_string(a) + b + (c ? "yes" : "no") + std::to_string(d) + e + std::to_string(g);
        };

    CValueList const result = adapt(f, listOf(1, std::string("two"), true, 4.5, std::string("five"), 6));

    EXPECT_EQ("1twoyes4.500000five6", unpackAt<std::string>(result, 0));
}

TEST(Adapt, TakesArgumentsByValueByReferenceAndByRvalueReference)
{
    std::function<std::string(std::string, std::string const&, std::string&&, std::string&)> const f =
        [](std::string a, std::string const& b, std::string&& c, std::string& d) { return a + b + c + d; };

    CValueList const result = adapt(f, listOf(std::string("a"), std::string("b"), std::string("c"), std::string("d")));

    EXPECT_EQ("abcd", unpackAt<std::string>(result, 0));
}

TEST(Adapt, ReadsAnArgumentOfEveryType)
{
    std::function<bool(int, unsigned, bool, float, double, EColour, std::string, char const*, CCString,
                       std::vector<std::uint8_t>, SSize)> const f =
        [](int i, unsigned u, bool b, float fl, double d, EColour e, std::string const& s, char const* c,
           CCString const& cc, std::vector<std::uint8_t> const& bytes, SSize size) {
            return i == -1 && u == 4000000000U && b && fl == 0.5F && d == 0.25 && e == EColour::Blue && s == "s" &&
                   std::string("c") == c && std::string("cc") == cc.Get() && bytes.size() == 2 && bytes[1] == 9 &&
                   size.width == 12 && size.height == 34;
        };
    CValueList const call = listOf<int, unsigned, bool, float, double, EColour, std::string, char const*, CCString,
                                   std::vector<std::uint8_t>, SSize>(-1, 4000000000U, true, 0.5F, 0.25, EColour::Blue,
                                                                     "s", "c", CCString("cc"), {8, 9}, SSize{12, 34});

    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", toString(adapt(f, call)));
}

TEST(Adapt, StoresAResultOfEveryType)
{
    auto const resultText = [](auto const& f) { return adapt(std::function(f), CValueList()).at(0)->ToString(); };

    EXPECT_EQ("CTypedValue<int> = -1", resultText([] { return -1; }));
    EXPECT_EQ("CBinaryValue[uint=4000000000]", resultText([] { return 4000000000U; }));
    EXPECT_EQ("CBinaryValue[bool=true]", resultText([] { return true; }));
    EXPECT_EQ("CBinaryValue[float=0.500000]", resultText([] { return 0.5F; }));
    EXPECT_EQ("CBinaryValue[double=0.250000]", resultText([] { return 0.25; }));
    EXPECT_EQ("CBinaryValue[enum=-2]", resultText([] { return EColour::Blue; }));
    EXPECT_EQ(CTypedValue<std::string>("s").ToString(), resultText([] { return std::string("s"); }));
    EXPECT_EQ("CTypedValue<nelo_rpc::types::CCString> = c", resultText([]() -> char const* { return "c"; }));
    EXPECT_EQ("CTypedValue<nelo_rpc::types::CCString> = cc", resultText([] { return CCString("cc"); }));
    EXPECT_EQ("CBinaryValue[size=3]", resultText([] { return std::vector<std::uint8_t>{1, 2, 3}; }));
    EXPECT_EQ("CTypedValue<int> = 12034", resultText([] { return SSize{12, 34}; }));
}

TEST(Adapt, StoresACopyOfAResultThatIsReturnedByReference)
{
    std::string text = "before";
    std::function<std::string const&()> const f = [&]() -> std::string const& { return text; };

    CValueList const result = adapt(f, CValueList());
    text = "after";

    EXPECT_EQ("before", unpackAt<std::string>(result, 0));
}

TEST(Adapt, LetsAnExceptionOfTheFunctionPass)
{
    std::function<int(int)> const throwsText = [](int) -> int { throw std::runtime_error("from inside"); };
    std::function<int(int)> const throwsNumber = [](int value) -> int { throw value; };

    try
    {
        adapt(throwsText, listOf(1));
        FAIL() << "no exception";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ("from inside", error.what());
    }
    EXPECT_THROW(adapt(throwsNumber, listOf(1)), int);
}

TEST(Adapt, OfAnEmptyFunctionRaisesBadFunctionCall)
{
    std::function<int(int)> const empty;

    EXPECT_THROW(adapt(empty, listOf(1)), std::bad_function_call);
}

TEST(AdaptDeathTest, OfAnArgumentOfAnotherTypeAbortsWithoutCallingTheFunction)
{
    EXPECT_ABORT(adapt(unreachable<int>(), listOf<std::string>("5")), WRONG_TYPE);
    EXPECT_ABORT(adapt(unreachable<std::string>(), listOf(5)), WRONG_TYPE);
    EXPECT_ABORT(adapt(unreachable<bool>(), listOf(1)), WRONG_TYPE);
    EXPECT_ABORT(adapt(unreachable<double>(), listOf(0.5F)), WRONG_TYPE);
}

TEST(AdaptDeathTest, OfACStringWhereAStringIsTakenAborts)
{
    EXPECT_ABORT(adapt(unreachable<std::string>(), listOf<char const*>("Thermostat")), WRONG_TYPE);
}

TEST(AdaptDeathTest, OfALaterArgumentOfAnotherTypeAborts)
{
    EXPECT_ABORT(adapt(unreachable<int, int, int>(), listOf(1, 2, std::string("3"))), WRONG_TYPE);
}

TEST(AdaptDeathTest, OfAMissingIndexAborts)
{
    EXPECT_ABORT(adapt(unreachable<int>(), CValueList()), WRONG_TYPE);
    EXPECT_ABORT(adapt(unreachable<int>(), (CValueList{{1, makeValue<int>(1)}, {-1, makeValue<int>(1)}})), WRONG_TYPE);
    EXPECT_ABORT(adapt(unreachable<int, int>(), listOf(1)), WRONG_TYPE);
}

TEST(AdaptDeathTest, OfANullEntryAborts)
{
    EXPECT_ABORT(adapt(unreachable<int>(), (CValueList{{0, nullptr}})), WRONG_TYPE);
}

TEST(AdaptDeathTest, ReadsTheArgumentsBeforeItLooksWhetherTheFunctionIsEmpty)
{
    EXPECT_ABORT(adapt(std::function<int(int)>(), CValueList()), WRONG_TYPE);
}

// ---- functions without a result ----

TEST(MakeNoVoidFunction, CallsTheFunctionAndAnswersTrue)
{
    int seen = 0;
    std::function<void(int)> const f = [&](int value) { seen = value; };

    std::function<bool(int)> const answering = makeNoVoidFunction<int>(f);

    EXPECT_TRUE(answering(5));
    EXPECT_EQ(5, seen);
}

TEST(MakeNoVoidFunction, TakesAnythingCallableWhenTheArgumentsTypeIsGiven)
{
    int seen = 0;

    std::function<bool(int)> const fromLambda = makeNoVoidFunction<int>([&](int value) { seen += value; });
    std::function<bool(int)> const fromBind =
        makeNoVoidFunction<int>(std::bind([&](int value) { seen += value; }, std::placeholders::_1));

    EXPECT_TRUE(fromLambda(5));
    EXPECT_TRUE(fromBind(6));
    EXPECT_EQ(11, seen);
}

TEST(MakeNoVoidFunction, TakesAnyNumberOfArguments)
{
    std::string seen;
    auto const none = makeNoVoidFunction<>(std::function<void()>([&] { seen += "none "; }));
    auto const two = makeNoVoidFunction<int, std::string>(
        std::function<void(int, std::string)>([&](int a, std::string const& b) { seen += std::to_string(a) + b; }));

    EXPECT_TRUE(none());
    EXPECT_TRUE(two(2, "x"));
    EXPECT_EQ("none 2x", seen);
}

TEST(MakeNoVoidFunction, OfAnEmptyFunctionRaisesBadFunctionCallWhenCalled)
{
    std::function<bool(int)> const answering = makeNoVoidFunction<int>(std::function<void(int)>());

    EXPECT_THROW(answering(5), std::bad_function_call);
}

TEST(MakeNoVoidFunction, LetsAnExceptionPass)
{
    auto const answering =
        makeNoVoidFunction<int>(std::function<void(int)>([](int) { throw std::runtime_error("from inside"); }));

    EXPECT_THROW(answering(5), std::runtime_error);
}

// ---- whole chains ----

TEST(AdapterChain, OfAMemberFunctionWithAResult)
{
    CActorKeeper keeper;
    std::function<int(CActorKeeper*, std::string)> const member = &CActorKeeper::ctor;
    std::function<int(std::string)> const bound = std::bind(member, &keeper, std::placeholders::_1);
    ValueListFunction const uniform = std::bind(&adapt<int, std::string>, bound, std::placeholders::_1);

    EXPECT_EQ("{0 = (CTypedValue<int> = 7) | }", toString(uniform(listOf<std::string>("Thermostat"))));
    EXPECT_EQ("Thermostat", keeper.m_typeName);
}

TEST(AdapterChain, OfAMemberFunctionWithoutAResult)
{
    CActorKeeper keeper;
    std::function<void(CActorKeeper*, int)> const member = &CActorKeeper::dtor;
    std::function<void(int)> const bound = std::bind(member, &keeper, std::placeholders::_1);
    std::function<bool(int)> const answering = makeNoVoidFunction<int>(bound);
    ValueListFunction const uniform = std::bind(&adapt<bool, int>, answering, std::placeholders::_1);

    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", toString(uniform(listOf(5))));
    EXPECT_EQ(5, keeper.m_destroyed);
}

// ---- makeValueListFunction ----

TEST(MakeValueListFunction, HasTheUniformForm)
{
    EXPECT_TRUE((std::is_same_v<std::function<CValueList(CValueList const&)>, ValueListFunction>));
    EXPECT_TRUE((std::is_same_v<ValueListFunction, decltype(makeValueListFunction(&sumOfTwo))>));
}

TEST(MakeValueListFunction, TakesAStdFunction)
{
    std::function<int(int, int)> f = &sumOfTwo;
    std::function<int(int, int)> const constant = f;

    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(f)(listOf(2, 3)), 0));
    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(constant)(listOf(2, 3)), 0));
    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(std::move(f))(listOf(2, 3)), 0));
}

TEST(MakeValueListFunction, TakesALambda)
{
    auto const sum = [](int a, int b) { return a + b; };

    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(sum)(listOf(2, 3)), 0));
    EXPECT_EQ(6, unpackAt<int>(makeValueListFunction([](int a) { return 2 * a; })(listOf(3)), 0));
}

TEST(MakeValueListFunction, TakesAMutableLambdaWhoseStateLivesOn)
{
    auto const uniform = makeValueListFunction([count = 0]() mutable { return ++count; });

    EXPECT_EQ(1, unpackAt<int>(uniform(CValueList()), 0));
    EXPECT_EQ(2, unpackAt<int>(uniform(CValueList()), 0));
}

TEST(MakeValueListFunction, TakesAFunctionPointerAndAFunctionName)
{
    int (*const pointer)(int, int) = &sumOfTwo;

    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(pointer)(listOf(2, 3)), 0));
    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(sumOfTwo)(listOf(2, 3)), 0));
    EXPECT_EQ(8, unpackAt<int>(makeValueListFunction(&CCounter::Twice)(listOf(4)), 0));
}

TEST(MakeValueListFunction, TakesAFunctionObject)
{
    struct SDoubler
    {
        int operator()(int value) const { return 2 * value; }
    };

    EXPECT_EQ(8, unpackAt<int>(makeValueListFunction(SDoubler())(listOf(4)), 0));
}

TEST(MakeValueListFunction, TakesAMemberFunctionOfAnObjectThatStaysTheCallers)
{
    CCounter counter;
    auto const add = makeValueListFunction(counter, &CCounter::Add);

    EXPECT_EQ(3, unpackAt<int>(add(listOf(3)), 0));
    EXPECT_EQ(7, unpackAt<int>(add(listOf(4)), 0));
    EXPECT_EQ(7, counter.Total());
}

TEST(MakeValueListFunction, TakesAConstMemberFunction)
{
    CCounter counter;
    counter.Add(5);
    CCounter const& constant = counter;

    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(counter, &CCounter::Total)(CValueList()), 0));
    EXPECT_EQ(5, unpackAt<int>(makeValueListFunction(constant, &CCounter::Total)(CValueList()), 0));
}

TEST(MakeValueListFunction, TakesANoexceptMemberFunction)
{
    CCounter counter;
    counter.Add(5);
    auto const isAbove = makeValueListFunction(counter, &CCounter::IsAbove);

    EXPECT_TRUE(unpackAt<bool>(isAbove(listOf(4)), 0));
    EXPECT_FALSE(unpackAt<bool>(isAbove(listOf(5)), 0));
}

TEST(MakeValueListFunction, TakesAMemberFunctionThatTheObjectInherits)
{
    CDerivedCounter counter;

    EXPECT_EQ(3, unpackAt<int>(makeValueListFunction(counter, &CDerivedCounter::Add)(listOf(3)), 0));
}

TEST(MakeValueListFunction, WithoutAResultAnswersTrue)
{
    CCounter counter;
    counter.Add(5);
    int seen = 0;

    CValueList const ofMember = makeValueListFunction(counter, &CCounter::Reset)(CValueList());
    CValueList const ofLambda = makeValueListFunction([&](int value) { seen = value; })(listOf(4));

    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", toString(ofMember));
    EXPECT_EQ(0, counter.Total());
    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", toString(ofLambda));
    EXPECT_EQ(4, seen);
}

TEST(MakeValueListFunction, KeepsACopyOfTheFunction)
{
    std::function<int(int)> f = [](int value) { return value + 1; };
    auto const uniform = makeValueListFunction(f);
    f = nullptr;

    EXPECT_EQ(5, unpackAt<int>(uniform(listOf(4)), 0));
}

TEST(MakeValueListFunction, OfAnEmptyFunctionRaisesBadFunctionCallWhenCalled)
{
    auto const withResult = makeValueListFunction(std::function<int(int)>());
    auto const withoutResult = makeValueListFunction(std::function<void(int)>());

    EXPECT_THROW(withResult(listOf(1)), std::bad_function_call);
    EXPECT_THROW(withoutResult(listOf(1)), std::bad_function_call);
}

TEST(MakeValueListFunction, LetsAnExceptionPass)
{
    auto const uniform = makeValueListFunction([](int) { throw std::runtime_error("from inside"); });

    EXPECT_THROW(uniform(listOf(1)), std::runtime_error);
}

TEST(MakeValueListFunctionDeathTest, OfAWrongOrMissingArgumentAborts)
{
    auto const sum = makeValueListFunction(&sumOfTwo);

    EXPECT_ABORT(sum(listOf(1)), WRONG_TYPE);
    EXPECT_ABORT(sum(listOf(1, std::string("2"))), WRONG_TYPE);
}

TEST(MakeValueListFunction, MayBeCalledFromManyThreadsAtOnce)
{
    auto const sum = makeValueListFunction(&sumOfTwo);
    std::vector<int> sums(4);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i)
    {
        callers.emplace_back([&, i] { sums.at(static_cast<std::size_t>(i)) = unpackAt<int>(sum(listOf(i, 100)), 0); });
    }
    for (std::thread& caller : callers)
    {
        caller.join();
    }

    EXPECT_EQ((std::vector<int>{100, 101, 102, 103}), sums);
}

// ---- looking at arguments before a call ----

TEST(FindUnfitArgument, FindsNoneIfAllArgumentsAreWhatTheFunctionTakes)
{
    EXPECT_EQ(-1, findUnfitArgument<>(CValueList()));
    EXPECT_EQ(-1, (findUnfitArgument<int, std::string const&>(listOf(1, std::string("2")))));
}

TEST(FindUnfitArgument, KnowsEveryType)
{
    auto const call = listOf<int, unsigned, bool, float, double, EColour, std::string, char const*, CCString,
                             std::vector<std::uint8_t>, SSize>(-1, 4000000000U, true, 0.5F, 0.25, EColour::Blue, "s",
                                                               "c", CCString("cc"), {8, 9}, SSize{12, 34});

    EXPECT_EQ(-1, (findUnfitArgument<int, unsigned, bool, float, double, EColour, std::string, char const*, CCString,
                                     std::vector<std::uint8_t>, SSize>(call)));
}

TEST(FindUnfitArgument, FindsTheLeftmostThatIsMissingOrIllTyped)
{
    EXPECT_EQ(0, findUnfitArgument<int>(CValueList()));
    EXPECT_EQ(0, findUnfitArgument<int>(listOf(std::string("5"))));
    EXPECT_EQ(1, (findUnfitArgument<int, int, int>(listOf(1))));
    EXPECT_EQ(1, (findUnfitArgument<int, int, int>(listOf(1, 2U, std::string("3")))));
    EXPECT_EQ(0, findUnfitArgument<int>(CValueList{{0, nullptr}}));
}

TEST(FindUnfitArgument, LooksAtClassKindAndSize)
{
    auto const binary = [](unsigned int size, int kind) {
        return CValueList{{0, std::make_shared<CBinaryValue>("12345678", size, kind)}};
    };
    EXPECT_EQ(0, findUnfitArgument<std::string>(listOf<char const*>("text")));
    EXPECT_EQ(0, findUnfitArgument<char const*>(listOf(std::string("text"))));
    EXPECT_EQ(0, findUnfitArgument<double>(listOf(0.5F)));
    EXPECT_EQ(0, findUnfitArgument<double>(binary(7, 3)));
    EXPECT_EQ(-1, findUnfitArgument<double>(binary(8, 3)));
    EXPECT_EQ(0, findUnfitArgument<bool>(binary(0, 4)));
    EXPECT_EQ(0, findUnfitArgument<EColour>(listOf(1)));
    EXPECT_EQ(0, findUnfitArgument<std::vector<std::uint8_t>>(binary(4, 1)));
    EXPECT_EQ(-1, findUnfitArgument<std::vector<std::uint8_t>>(binary(0, 0)));
}

TEST(FindUnfitArgument, DoesNotLookBehindWhatTheFunctionTakes)
{
    EXPECT_EQ(-1, findUnfitArgument<int>(listOf(1, std::string("more"))));
}

TEST(FindUnfitArgument, AsksTheTraitsOfAnApplicationsOwnType)
{
    EXPECT_EQ(0, findUnfitArgument<SSize>(listOf(std::string("12034"))));
    EXPECT_EQ(0, findUnfitArgument<SUndemanding>(CValueList())) << "there is nothing to unpack";
    EXPECT_EQ(-1, findUnfitArgument<SUndemanding>(listOf(std::string("anything"))));
}

TEST(ArgumentCheckFor, ATypedFunctionIsThatOfItsArguments)
{
    auto const check = argumentCheckFor(std::function(&sumOfTwo));

    EXPECT_EQ(-1, check(listOf(1, 2)));
    EXPECT_EQ(1, check(listOf(1)));
}
