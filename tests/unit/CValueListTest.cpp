#include <nelo_rpc/Values.h>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace nelo_rpc::types;

namespace
{
std::vector<int> indices(CValueList const& list)
{
    std::vector<int> result;
    for (auto const& entry : list)
    {
        result.push_back(entry.first);
    }
    return result;
}
} // namespace

// ---- container ----

TEST(CValueList, IsAnOrderedMapWithoutVirtualFunctions)
{
    EXPECT_TRUE((std::is_base_of_v<std::map<int, std::shared_ptr<CValue>>, CValueList>));
    EXPECT_FALSE(std::is_polymorphic_v<CValueList>);
    EXPECT_EQ(sizeof(std::map<int, std::shared_ptr<CValue>>), sizeof(CValueList));
}

TEST(CValueList, StartsEmpty)
{
    CValueList const list;

    EXPECT_TRUE(list.empty());
    EXPECT_EQ(0U, list.size());
}

TEST(CValueList, IteratesInAscendingOrderWithReservedIndicesFirst)
{
    CValueList list;
    for (int index : {5, -1, 0, 2, -4})
    {
        list[index] = makeValue<int>(index);
    }

    EXPECT_EQ((std::vector<int>{-4, -1, 0, 2, 5}), indices(list));
}

TEST(CValueList, FindsCountsAndErasesAsAMapDoes)
{
    CValueList list{{0, makeValue<int>(1)}, {1, makeValue<std::string>("x")}};

    EXPECT_EQ(2U, list.size());
    EXPECT_EQ(1U, list.count(1));
    EXPECT_EQ(0U, list.count(2));
    ASSERT_NE(list.end(), list.find(0));
    EXPECT_EQ(1, extract<int>(*list.find(0)->second));

    EXPECT_EQ(1U, list.erase(0));
    EXPECT_EQ(0U, list.count(0));
    EXPECT_EQ(list.end(), list.find(0));
}

TEST(CValueList, CopySharesTheValues)
{
    CValueList list;
    list[0] = makeValue<int>(1);

    CValueList const copy(list); // NOLINT(performance-unnecessary-copy-initialization): it is what is tested

    EXPECT_EQ(list[0].get(), copy.at(0).get());
    EXPECT_EQ(2, list[0].use_count());
}

TEST(CValueList, AssignmentSharesTheValues)
{
    CValueList list;
    list[0] = makeValue<int>(1);
    CValueList other;
    other[7] = makeValue<int>(7);

    other = list;

    EXPECT_EQ((std::vector<int>{0}), indices(other));
    EXPECT_EQ(list[0].get(), other[0].get());
}

TEST(CValueList, CopyIsAListOfItsOwn)
{
    CValueList list;
    list[0] = makeValue<int>(1);
    CValueList copy(list);

    copy.erase(0);
    copy[3] = makeValue<int>(3);

    EXPECT_EQ((std::vector<int>{0}), indices(list));
}

TEST(CValueList, CopyKeepsTheValuesAliveWithoutTheOriginal)
{
    auto list = std::make_shared<CValueList>();
    (*list)[0] = makeValue<std::string>("hello");
    CValueList const copy = *list;
    list.reset();

    EXPECT_EQ("hello", extract<std::string>(*copy.at(0)));
}

TEST(CValueList, AssigningToAnIndexTwiceKeepsTheLaterValue)
{
    CValueList list;
    list[0] = makeValue<int>(1);
    list[0] = makeValue<int>(2);

    EXPECT_EQ(1U, list.size());
    EXPECT_EQ(2, extract<int>(*list[0]));
}

// ---- text ----

TEST(ToStringOfAList, OfAnEmptyListIsAPairOfBraces)
{
    EXPECT_EQ("{}", toString(CValueList()));
}

TEST(ToStringOfAList, OfACallShowsTheMethodNameAndTheArgument)
{
    CValueList list;
    list[0] = makeValue<int>(5);
    list[-1] = makeValue<char const*>("Ping");

    EXPECT_EQ("{METHOD_NAME = (CTypedValue<nelo_rpc::types::CCString> = Ping) | 0 = (CTypedValue<int> = 5) | }",
              toString(list));
}

TEST(ToStringOfAList, ShowsEntriesInAscendingOrderOfTheirIndex)
{
    CValueList list;
    list[5] = makeValue<int>(50);
    list[-3] = makeValue<int>(30);

    EXPECT_EQ("{CONNECTION_ID = (CTypedValue<int> = 30) | 5 = (CTypedValue<int> = 50) | }", toString(list));
}

TEST(ToStringOfAList, NamesAllReservedIndices)
{
    CValueList list;
    for (int index : {-1, -2, -3, -4})
    {
        list[index] = makeValue<int>(-index);
    }

    EXPECT_EQ("{TYPE_NAME = (CTypedValue<int> = 4) | CONNECTION_ID = (CTypedValue<int> = 3) | "
              "ACTOR_ID = (CTypedValue<int> = 2) | METHOD_NAME = (CTypedValue<int> = 1) | }",
              toString(list));
}

TEST(ToStringOfAList, ShowsAnUnknownNegativeIndexAsANumber)
{
    CValueList list;
    list[-7] = makeValue<int>(1);
    list[-5] = makeValue<int>(2);

    EXPECT_EQ("{-7 = (CTypedValue<int> = 1) | -5 = (CTypedValue<int> = 2) | }", toString(list));
}

TEST(ToStringOfAList, ShowsEveryClassOfValue)
{
    CValueList list;
    list[0] = makeValue<int>(-1);
    list[1] = makeValue<std::string>("s");
    list[2] = makeValue<char const*>("c");
    list[3] = makeValue<bool>(true);
    list[4] = std::make_shared<CBinaryValue>("\1", 1, binarykind::Bool);

    EXPECT_EQ("{0 = (CTypedValue<int> = -1) | "
              "1 = (CTypedValue<std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >> = s) "
              "| 2 = (CTypedValue<nelo_rpc::types::CCString> = c) | 3 = (CTypedValue<bool> = 1) | "
              "4 = (CBinaryValue[bool=true]) | }",
              toString(list));
}

TEST(ReservedKeyNames, AreTheFourOfTheProtocol)
{
    std::map<int, std::string> const expected{
        {-1, "METHOD_NAME"}, {-2, "ACTOR_ID"}, {-3, "CONNECTION_ID"}, {-4, "TYPE_NAME"}};

    EXPECT_EQ(expected, RESERVED_KEY_NAMES);
}
