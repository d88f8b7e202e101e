#include "backend_sim/challenge_registry.hpp"

#include <gtest/gtest.h>

namespace backend_sim {
namespace {

using Status = ChallengeRegistry::Status;
const ChallengeRegistry::Clock::time_point kStart{std::chrono::hours(2)};

TEST(ChallengeRegistryTest, OldestChallengesMakeRoomWhenFull) {
    ChallengeRegistry sut(std::chrono::seconds(60), 3);

    for (const char* challenge : {"A", "B", "C", "D"}) {
        sut.Issue(challenge, kStart);
    }

    EXPECT_EQ(sut.Size(), 3u);
    EXPECT_EQ(sut.Check("A", kStart), Status::kUnknown);
    EXPECT_EQ(sut.Check("D", kStart), Status::kFresh);
}

TEST(ChallengeRegistryTest, UseIsRememberedAndOnlyOnce) {
    ChallengeRegistry sut(std::chrono::seconds(60));
    sut.Issue("A", kStart);

    EXPECT_TRUE(sut.MarkUsed("A", {"VIN", 7}, kStart));
    EXPECT_FALSE(sut.MarkUsed("A", {"VIN", 8}, kStart));
    EXPECT_FALSE(sut.MarkUsed("B", {"VIN", 7}, kStart));

    EXPECT_EQ(sut.Check("A", kStart), Status::kAlreadyUsed);
    ASSERT_TRUE(sut.UseOf("A").has_value());
    EXPECT_EQ(sut.UseOf("A")->trainingCounter, 7);
    EXPECT_FALSE(sut.UseOf("B").has_value());
}

}  // namespace
}  // namespace backend_sim
