#include "vehicle_sim/fail_points.hpp"

#include <gtest/gtest.h>

namespace vehicle_sim {
namespace {

TEST(FailPointsTest, DefaultErrorIsTheInterfacesGeneralOne) {
    FailPoints sut;
    std::string error;
    ASSERT_TRUE(sut.Add("HandleDlc", error));
    ASSERT_TRUE(sut.Add("GetCertificate", error));
    ASSERT_TRUE(sut.Add("HandleMessage", error));

    const auto diag = sut.Take("HandleDlc");
    const auto typeIds = sut.Take("GetCertificate");
    const auto uds = sut.Take("HandleMessage");

    ASSERT_TRUE(diag && typeIds && uds);
    EXPECT_EQ(diag->error, "ZELK_ERROR_GENERAL");
    EXPECT_EQ(diag->code, 1);
    EXPECT_EQ(typeIds->error, "ZELK_ERROR_GENERAL");
    EXPECT_EQ(typeIds->code, 2);
    EXPECT_EQ(uds->error, "UDSServiceFailed");
    EXPECT_EQ(uds->code, 2);
}

TEST(FailPointsTest, ChosenErrorAndCountAreHonoured) {
    FailPoints sut;
    std::string error;
    ASSERT_TRUE(sut.Add("HandleDlc=ZELK_ERROR_BUSY:2", error)) << error;
    ASSERT_TRUE(sut.Add("GetCertificate=ZELK_ERROR_INVALID_TYPEID:*", error)) << error;
    ASSERT_TRUE(sut.Add("persist", error)) << error;

    EXPECT_EQ(sut.Pending(), (std::vector<std::string>{"HandleDlc=ZELK_ERROR_BUSY:2",
                                                       "GetCertificate=ZELK_ERROR_INVALID_TYPEID:*",
                                                       "persist:1"}));
    EXPECT_EQ(sut.Take("HandleDlc")->code, 23);
    EXPECT_EQ(sut.Take("HandleDlc")->code, 23);
    EXPECT_FALSE(sut.Take("HandleDlc").has_value());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(sut.Take("GetCertificate")->code, 20);
    }
    EXPECT_TRUE(sut.Take("persist").has_value());
    EXPECT_FALSE(sut.Take("persist").has_value());
    sut.Clear();
    EXPECT_FALSE(sut.Take("GetCertificate").has_value());
}

TEST(FailPointsTest, ErrorsOfAnotherInterfaceAndUnknownNamesAreRefused) {
    FailPoints sut;
    std::string wrongDomain;
    std::string unknown;
    std::string badCount;
    std::string persistWithError;

    EXPECT_FALSE(sut.Add("GetCertificate=ZELK_ERROR_DLC_INVALID_MAC", wrongDomain));
    EXPECT_FALSE(sut.Add("GetVin", unknown));
    EXPECT_FALSE(sut.Add("HandleDlc:0", badCount));
    EXPECT_FALSE(sut.Add("persist=ZELK_ERROR_BUSY", persistWithError));

    EXPECT_EQ(wrongDomain, "fail point 'GetCertificate' cannot raise 'ZELK_ERROR_DLC_INVALID_MAC'");
    EXPECT_NE(unknown.find("unknown fail point 'GetVin'"), std::string::npos);
    EXPECT_NE(badCount.find("bad count '0'"), std::string::npos);
    EXPECT_NE(persistWithError.find("takes no error"), std::string::npos);
    EXPECT_TRUE(sut.Pending().empty());
}

}  // namespace
}  // namespace vehicle_sim
