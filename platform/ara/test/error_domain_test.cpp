#include "error_domain.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "service_domains.hpp"
#include "test_support/temporary_directory.hpp"

namespace ara::com::internal {
namespace {

// The value of `attribute` in every tag that starts with `tag`, in document order.
std::vector<std::string> Values(const std::string& xml, const std::string& tag,
                                const std::string& attribute) {
    std::vector<std::string> values;
    for (auto at = xml.find(tag + " "); at != std::string::npos; at = xml.find(tag + " ", at + 1)) {
        const auto start = xml.find(attribute + "=\"", at) + attribute.size() + 2;
        values.push_back(xml.substr(start, xml.find('"', start) - start));
    }
    return values;
}

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
        EXPECT_EQ(Values(xml, "<interface", "name"),
                  std::vector<std::string>{domain().DbusInterface()});
        EXPECT_EQ(Values(xml, "<ara:errors", "domain"), std::vector<std::string>{domain().Name()});
        const auto names = Values(xml, "<ara:error", "name");
        const auto codes = Values(xml, "<ara:error", "code");
        std::vector<std::pair<std::string, std::int32_t>> declared;
        for (std::size_t i = 0; i < names.size() && i < codes.size(); ++i) {
            declared.emplace_back(names[i], std::stoi(codes[i]));
        }
        EXPECT_EQ(declared, domain().Errors());
    }
}

}  // namespace
}  // namespace ara::com::internal
