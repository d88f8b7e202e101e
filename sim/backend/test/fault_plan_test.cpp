#include "backend_sim/fault_plan.hpp"

#include <gtest/gtest.h>

namespace backend_sim {
namespace {

struct ValidSpec {
    std::string definition;
    Exchange exchange;
    FaultKind kind;
    int argument;
    std::optional<std::uint32_t> count;
};

class FaultSpecAccepted : public ::testing::TestWithParam<ValidSpec> {};

TEST_P(FaultSpecAccepted, ParsesKindArgumentAndCount) {
    FaultPlan sut;
    std::string error;

    ASSERT_TRUE(sut.Add(GetParam().definition, error)) << error;

    const auto fault = sut.Take(GetParam().exchange);
    ASSERT_TRUE(fault.has_value());
    EXPECT_EQ(fault->kind, GetParam().kind);
    EXPECT_EQ(fault->argument, GetParam().argument);
    EXPECT_EQ(fault->count, GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(
    Specs, FaultSpecAccepted,
    ::testing::Values(
        ValidSpec{"download=status:500", Exchange::kDownload, FaultKind::kStatus, 500, 1},
        ValidSpec{"challenge=status:999:3", Exchange::kChallenge, FaultKind::kStatus, 999, 3},
        ValidSpec{"feedback=delay:2000:*", Exchange::kFeedback, FaultKind::kDelay, 2000,
                  std::nullopt},
        ValidSpec{"download=empty-body", Exchange::kDownload, FaultKind::kEmptyBody, 0, 1},
        ValidSpec{"challenge=garbage-body:2", Exchange::kChallenge, FaultKind::kGarbageBody, 0, 2},
        ValidSpec{"challenge=continue", Exchange::kChallenge, FaultKind::kContinue, 0, 1},
        ValidSpec{"feedback=keep-open", Exchange::kFeedback, FaultKind::kKeepOpen, 0, 1},
        ValidSpec{"download=close:*", Exchange::kDownload, FaultKind::kClose, 0, std::nullopt},
        ValidSpec{"challenge=hang", Exchange::kChallenge, FaultKind::kHang, 0, 1},
        ValidSpec{"challenge=no-digits", Exchange::kChallenge, FaultKind::kNoDigits, 0, 1},
        ValidSpec{"download=bad-mac", Exchange::kDownload, FaultKind::kBadMac, 0, 1}));

class FaultSpecRefused : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};

TEST_P(FaultSpecRefused, SaysWhyInOneLine) {
    FaultPlan sut;
    std::string error;

    EXPECT_FALSE(sut.Add(GetParam().first, error));

    EXPECT_NE(error.find(GetParam().second), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_TRUE(sut.Pending().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Specs, FaultSpecRefused,
    ::testing::Values(std::make_pair("status:500", "is not EXCHANGE=KIND"),
                      std::make_pair("upload=close", "unknown exchange 'upload'"),
                      std::make_pair("download=explode", "unknown fault 'explode'"),
                      std::make_pair("download=status", "needs a value"),
                      std::make_pair("download=status:99", "a status code 100-999"),
                      std::make_pair("download=status:abc", "bad value 'abc'"),
                      std::make_pair("download=delay:-1", "milliseconds"),
                      std::make_pair("download=close:0", "bad count '0'"),
                      std::make_pair("download=close:2:3", "too many ':'"),
                      std::make_pair("challenge=bad-mac", "download exchange only")));

TEST(FaultPlanTest, CountsAreSpentInOrderPerExchange) {
    FaultPlan sut;
    std::string error;
    ASSERT_TRUE(sut.Add("download=status:500:2", error));
    ASSERT_TRUE(sut.Add("download=close", error));
    ASSERT_TRUE(sut.Add("challenge=hang", error));

    EXPECT_FALSE(sut.Take(Exchange::kFeedback).has_value());
    EXPECT_EQ(sut.Take(Exchange::kDownload)->kind, FaultKind::kStatus);
    EXPECT_EQ(sut.Pending(), (std::vector<std::string>{"download=status:500:1", "download=close:1",
                                                       "challenge=hang:1"}));
    EXPECT_EQ(sut.Take(Exchange::kDownload)->kind, FaultKind::kStatus);
    EXPECT_EQ(sut.Take(Exchange::kDownload)->kind, FaultKind::kClose);
    EXPECT_FALSE(sut.Take(Exchange::kDownload).has_value());
    EXPECT_EQ(sut.Take(Exchange::kChallenge)->kind, FaultKind::kHang);
    EXPECT_TRUE(sut.Pending().empty());
}

TEST(FaultPlanTest, UnlimitedFaultStaysUntilCleared) {
    FaultPlan sut;
    std::string error;
    ASSERT_TRUE(sut.Add("feedback=status:503:*", error));

    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(sut.Take(Exchange::kFeedback).has_value());
    }
    EXPECT_EQ(sut.Pending(), std::vector<std::string>{"feedback=status:503:*"});
    sut.Clear();
    EXPECT_FALSE(sut.Take(Exchange::kFeedback).has_value());
}

}  // namespace

}  // namespace backend_sim
