#include "backend_sim/fault_plan.hpp"

#include <gtest/gtest.h>

namespace backend_sim {
namespace {

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

}  // namespace

}  // namespace backend_sim
