#include <gtest/gtest.h>

#include "mock_proxies.hpp"
#include "tee/diagnostic_services.hpp"
#include "tee/generic_uds_services.hpp"
#include "tee/typeid_access_service.hpp"

// The three accessors' common life cycle and what they do while their service is
// absent: all the client's facade cannot reach. Their calls are tested through it.
namespace qervo::tee {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ServiceAccessorsTest, ReadinessFollowsTheSearchAndCallsWithoutTheServiceGive101) {
    Bytes output{9};
    std::uint16_t counter = 7;
    std::string text = "kept";

    ExpectReadinessFollowsTheSearch<DiagnosticServices, MockDiagServicesProxy>(
        {"DiagnosticServices::Initialize()", "DiagnosticServices service found",
         "DiagnosticServices service stopped", "DiagnosticServices::Initialize()"},
        [&](DiagnosticServices& sut) {
            EXPECT_EQ(sut.zelk_handle_dlc(Bytes{1}), 101);
            // The service is asked for before the challenge is checked.
            EXPECT_EQ(sut.zelk_get_identity_hash(output, Bytes(15)), 101);
            EXPECT_EQ(sut.zelk_get_pss_hash(output), 101);
            EXPECT_EQ(sut.zelk_get_training_counter(counter), 101);
            EXPECT_EQ(sut.zelk_get_zelk_vin(output), 101);
        });
    ExpectReadinessFollowsTheSearch<TypeidAccessService, MockTypeIdAccessProxy>(
        {"TypeidAccessService::Initialize()",
         "zelk_get_certificate() Error! typeidaccess service is not ready",
         "TypeidAccessService service found", "TypeidAccessService service stopped",
         "TypeidAccessService::Initialize()"},
        // An unknown type id too: the service is asked for first.
        [&](TypeidAccessService& sut) { EXPECT_EQ(sut.zelk_get_certificate("nope", text), 101); });
    ExpectReadinessFollowsTheSearch<GenericUdsServices, MockGenericUDSServiceProxy>(
        {"GenericUdsServices::Initialize()",
         "ecu_get_part_number_from_dm() Error! genericuds service is not ready",
         "GenericUdsService service found", "GenericUdsService service stopped",
         "GenericUdsServices::Initialize()"},
        [&](GenericUdsServices& sut) { EXPECT_EQ(sut.ecu_get_part_number(text), 101); },
        std::string(TESMO_ID_PATH));

    EXPECT_EQ(output, Bytes{9});
    EXPECT_EQ(counter, 7);
    EXPECT_EQ(text, "kept");
}

}  // namespace
}  // namespace qervo::tee
