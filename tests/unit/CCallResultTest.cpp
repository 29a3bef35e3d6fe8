#include "CFakePort.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

using namespace nelo_rpc;

TEST(CCallResult, OfACallThatEndedHasItsListAndNoReason)
{
    CCallResult const result(listOf(7));

    EXPECT_TRUE(result.IsOk());
    EXPECT_EQ(ECallStatus::Ok, result.GetStatus());
    EXPECT_EQ("", result.GetReason());
    EXPECT_EQ(types::toString(listOf(7)), types::toString(result.GetList()));
}

TEST(CCallResult, OfACallThatFailedHasAReasonAndNoList)
{
    CCallResult const result(ECallStatus::NoServer, "nobody is there");

    EXPECT_FALSE(result.IsOk());
    EXPECT_EQ(ECallStatus::NoServer, result.GetStatus());
    EXPECT_EQ("nobody is there", result.GetReason());
    EXPECT_TRUE(result.GetList().empty());
}

TEST(CCallResult, GivesItsListAwayOnce)
{
    CCallResult result(listOf(7));

    EXPECT_EQ(types::toString(listOf(7)), types::toString(result.TakeList()));
    EXPECT_TRUE(result.TakeList().empty());
}

TEST(ECallStatus, HasANameForEachStatus)
{
    std::pair<ECallStatus, char const*> const names[] = {{ECallStatus::Ok, "Ok"},
                                                         {ECallStatus::TimedOut, "TimedOut"},
                                                         {ECallStatus::NoServer, "NoServer"},
                                                         {ECallStatus::Refused, "Refused"},
                                                         {ECallStatus::Disconnected, "Disconnected"},
                                                         {ECallStatus::TooLarge, "TooLarge"},
                                                         {ECallStatus::BadValue, "BadValue"},
                                                         {ECallStatus::CutOff, "CutOff"}};
    for (auto const& [status, name] : names)
    {
        EXPECT_STREQ(name, toString(status));
    }
}

TEST(CCallOptions, HaveNoTimeoutOfTheirOwnUntilTheyAreGivenOne)
{
    EXPECT_EQ(std::nullopt, CCallOptions().GetTimeoutMs());
    EXPECT_EQ(std::make_optional(500), CCallOptions(500).GetTimeoutMs());
}
