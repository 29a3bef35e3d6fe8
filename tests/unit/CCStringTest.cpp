#include <nelo_rpc/CCString.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

using nelo_rpc::types::CCString;

TEST(CCString, HoldsACopyOfTheTextItIsConstructedFrom)
{
    char buffer[] = "hello";
    CCString const text(buffer);

    buffer[0] = 'J';

    EXPECT_NE(static_cast<char*>(buffer), text.Get());
    EXPECT_STREQ("hello", text.Get());
}

TEST(CCString, KeepsTheCallersOwnPointerAsItsConstPointerAfterConstruction)
{
    char buffer[] = "hello";
    CCString const text(buffer);

    EXPECT_EQ(static_cast<char const*>(buffer), text.GetConst());
    EXPECT_NE(static_cast<char const*>(text.Get()), text.GetConst());
}

TEST(CCString, IsConstructedImplicitlyFromACharacterPointer)
{
    CCString const text = "hello";

    EXPECT_STREQ("hello", text.Get());
}

TEST(CCString, HoldsAnEmptyText)
{
    CCString const text("");

    ASSERT_NE(nullptr, text.Get());
    EXPECT_STREQ("", text.Get());
}

TEST(CCString, CopyHasOneCopyThatBothPointersPointTo)
{
    CCString const original("hello");
    CCString const copy(original); // NOLINT(performance-unnecessary-copy-initialization): it is what is tested

    EXPECT_STREQ("hello", copy.Get());
    EXPECT_EQ(static_cast<char const*>(copy.Get()), copy.GetConst());
    EXPECT_NE(original.Get(), copy.Get());
    EXPECT_NE(original.GetConst(), copy.GetConst());
}

TEST(CCString, CopyTakesTheOwnedTextAndNotTheOneOfTheConstPointer)
{
    char buffer[] = "hello";
    CCString const original(buffer);
    buffer[0] = 'J';

    CCString const copy(original);

    EXPECT_STREQ("hello", copy.Get());
    EXPECT_STREQ("hello", copy.GetConst());
}

TEST(CCString, CopyOutlivesTheOriginal)
{
    auto original = std::make_unique<CCString>("hello");
    CCString const copy(*original);
    original.reset();

    EXPECT_STREQ("hello", copy.Get());
    EXPECT_STREQ("hello", copy.GetConst());
}

TEST(CCString, AssignmentReplacesTheOwnedTextAndKeepsTheConstPointer)
{
    char const* const oldText = "old";
    CCString text(oldText);
    CCString const other("a new and longer text");

    text = other;

    EXPECT_STREQ("a new and longer text", text.Get());
    EXPECT_NE(other.Get(), text.Get());
    EXPECT_EQ(oldText, text.GetConst());
    EXPECT_STREQ("old", text.GetConst());
}

TEST(CCString, AssignmentTakesTheOwnedTextOfTheOther)
{
    char buffer[] = "hello";
    CCString const other(buffer);
    buffer[0] = 'J';
    CCString text("old");

    text = other;

    EXPECT_STREQ("hello", text.Get());
}

TEST(CCString, AssignmentOfAShorterTextEndsItWhereTheOtherEnds)
{
    CCString text("a long text that was there before");
    text = CCString("x");

    EXPECT_STREQ("x", text.Get());
}

TEST(CCString, AssignmentOfAnEmptyTextEmptiesIt)
{
    CCString text("old");
    text = CCString("");

    ASSERT_NE(nullptr, text.Get());
    EXPECT_STREQ("", text.Get());
}

TEST(CCString, AssignmentLeavesTheOtherAsItWas)
{
    CCString text("old");
    CCString const other("new");
    char const* const ownedBefore = other.Get();

    text = other;

    EXPECT_EQ(ownedBefore, other.Get());
    EXPECT_STREQ("new", other.Get());
}

TEST(CCString, AssignmentGivesTheAssignedObject)
{
    CCString text("old");
    CCString const other("new");

    EXPECT_EQ(&text, &(text = other));
}

TEST(CCString, AssignmentCanBeRepeated)
{
    CCString text("0");
    for (int i = 1; i <= 100; ++i)
    {
        text = CCString(std::to_string(i).c_str());
    }

    EXPECT_STREQ("100", text.Get());
}

TEST(CCString, GetRefersToThePointerItself)
{
    CCString text("old");
    char* const& owned = text.Get();

    text = CCString("new");

    EXPECT_STREQ("new", owned);
    EXPECT_EQ(&owned, &text.Get());
}

TEST(CCString, GetConstRefersToThePointerItself)
{
    CCString const text("hello");

    EXPECT_EQ(&text.GetConst(), &text.GetConst());
}

TEST(CCString, StoresTheOwnedPointerFirstAndTheConstPointerBehindIt)
{
    CCString const text("hello");
    auto const* const start = reinterpret_cast<char const*>(&text);

    EXPECT_EQ(start, reinterpret_cast<char const*>(&text.Get()));
    EXPECT_EQ(start + sizeof(char*), reinterpret_cast<char const*>(&text.GetConst()));
}

TEST(CCString, StrdupGivesANewCopyThatTheCallerFrees)
{
    std::unique_ptr<char, decltype(&std::free)> copy(nullptr, &std::free);
    {
        CCString const text("hello");
        copy.reset(text.Strdup());
        EXPECT_NE(text.Get(), copy.get());
    }

    EXPECT_STREQ("hello", copy.get());
}

TEST(CCString, StrdupCopiesTheOwnedText)
{
    char buffer[] = "hello";
    CCString const text(buffer);
    buffer[0] = 'J';

    std::unique_ptr<char, decltype(&std::free)> const copy(text.Strdup(), &std::free);

    EXPECT_STREQ("hello", copy.get());
}

TEST(CCString, InsertionWritesTheOwnedText)
{
    char buffer[] = "hello";
    CCString const text(buffer);
    buffer[0] = 'J';
    std::ostringstream stream;

    stream << text << '!';

    EXPECT_EQ("hello!", stream.str());
    EXPECT_TRUE(stream.good());
}

TEST(CCString, InsertionOfANullTextWritesNothingAndSetsTheBadBit)
{
    CCString text("hello");
    // No operation leaves the text null as long as memory lasts, so the pointer is taken away here.
    std::free(text.Get());
    const_cast<char*&>(text.Get()) = nullptr;
    std::ostringstream stream;

    stream << text;

    EXPECT_TRUE(stream.bad());
    EXPECT_EQ("", stream.str());
}
