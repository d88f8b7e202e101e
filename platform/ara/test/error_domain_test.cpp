#include "error_domain.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "service_domains.hpp"
#include "test_support/temporary_directory.hpp"

namespace ara::com::internal {
namespace {

// The error tables are written by hand; a vendor's binding is generated from the interface
// descriptions, so a code that drifts from them would only show on a vehicle.
TEST(ErrorDomainTest, EachTableMatchesItsInterfaceDescription) {
    const std::pair<const char*, const ErrorDomain& (*)()> rows[] = {
        {"diag_services.xml", &DiagServicesDomain},
        {"type_id_access.xml", &TypeIdAccessDomain},
        {"generic_uds_service.xml", &GenericUdsServiceDomain}};
    for (const auto& [file, domain] : rows) {
        SCOPED_TRACE(file);
        const std::string xml =
            kelvane::testing::ReadFile(std::string(KELVANE_IDL_DIR) + "/" + file);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(
            xml, match,
            std::regex(R"re(<interface name="([^"]+)">\s*<ara:errors domain="([^"]+)")re")));
        EXPECT_EQ(match[1], domain().DbusInterface());
        EXPECT_EQ(match[2], domain().Name());
        std::vector<std::pair<std::string, std::int32_t>> declared;
        const std::regex error(R"re(<ara:error name="([^"]+)" code="(\d+)"/>)re");
        for (std::sregex_iterator it(xml.begin(), xml.end(), error), end; it != end; ++it) {
            declared.emplace_back((*it)[1], std::stoi((*it)[2]));
        }
        EXPECT_EQ(declared, domain().Errors());
    }
}

}  // namespace
}  // namespace ara::com::internal
