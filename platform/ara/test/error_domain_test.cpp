#include "error_domain.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ara/com/com_error_domain.hpp"
#include "service_domains.hpp"
#include "test_support/temporary_directory.hpp"
#include "zelk/interfaces/diagservices/diagservices_common.hpp"

namespace ara::com::internal {
namespace {

struct Description {
    const char* file;
    const ErrorDomain& (*domain)();
};

// The values of `attribute` of every `<element ...>` tag, in document order.
std::vector<std::string> AttributeValues(const std::string& xml, const std::string& element,
                                         const std::string& attribute) {
    std::vector<std::string> values;
    const std::string open = "<" + element + " ";
    const std::string key = attribute + "=\"";
    for (auto at = xml.find(open); at != std::string::npos; at = xml.find(open, at + 1)) {
        const auto tagEnd = xml.find('>', at);
        const auto value = xml.find(key, at);
        if (value == std::string::npos || value > tagEnd) {
            continue;
        }
        const auto start = value + key.size();
        values.push_back(xml.substr(start, xml.find('"', start) - start));
    }
    return values;
}

class ErrorDomainTest : public ::testing::TestWithParam<Description> {};

TEST_P(ErrorDomainTest, TableMatchesTheInterfaceDescription) {
    const std::string xml =
        kelvane::testing::ReadFile(std::string(KELVANE_IDL_DIR) + "/" + GetParam().file);
    ASSERT_FALSE(xml.empty()) << GetParam().file;
    const ErrorDomain& sut = GetParam().domain();

    EXPECT_EQ(AttributeValues(xml, "interface", "name"),
              std::vector<std::string>{sut.DbusInterface()});
    EXPECT_EQ(AttributeValues(xml, "ara:errors", "domain"), std::vector<std::string>{sut.Name()});
    const auto names = AttributeValues(xml, "ara:error", "name");
    const auto codes = AttributeValues(xml, "ara:error", "code");
    ASSERT_EQ(names.size(), codes.size());
    std::vector<std::pair<std::string, std::int32_t>> declared;
    for (std::size_t i = 0; i < names.size(); ++i) {
        declared.emplace_back(names[i], std::stoi(codes[i]));
    }
    EXPECT_EQ(declared, sut.Errors());
}

INSTANTIATE_TEST_SUITE_P(Interfaces, ErrorDomainTest,
                         ::testing::Values(Description{"diag_services.xml", &DiagServicesDomain},
                                           Description{"type_id_access.xml", &TypeIdAccessDomain},
                                           Description{"generic_uds_service.xml",
                                                       &GenericUdsServiceDomain}),
                         [](const ::testing::TestParamInfo<Description>& param) {
                             const std::string file = param.param.file;
                             return file.substr(0, file.find('.'));
                         });

TEST(ErrorDomainTest, BusErrorsTranslateBothWays) {
    const ErrorDomain& sut = DiagServicesDomain();
    const auto busy = zelk::interfaces::diagservices::MakeApplicationError(
        zelk::interfaces::diagservices::DiagServicesErrc::ZELK_ERROR_BUSY);

    const sdbus::Error onTheBus = sut.ToBusError(busy);

    EXPECT_EQ(onTheBus.getName(),
              "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_BUSY");
    EXPECT_EQ(onTheBus.getMessage(), "DiagServices::ZELK_ERROR_BUSY::23");
    try {
        sut.Raise(onTheBus);
    } catch (const ApplicationErrorException& error) {
        EXPECT_EQ(error.Error().Value(), 23);
        EXPECT_STREQ(error.what(), "DiagServices::ZELK_ERROR_BUSY::23");
    }
    // Another domain's error, or a name this domain does not declare, is no application error.
    const auto foreign = TypeIdAccessDomain().Make(20);
    EXPECT_EQ(sut.ToBusError(foreign).getName(), "org.freedesktop.DBus.Error.Failed");
    EXPECT_THROW(sut.Raise(sdbus::Error(
                     "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_NEW", "")),
                 ComException);
    EXPECT_THROW(sut.Raise(sdbus::Error("org.freedesktop.DBus.Error.NoReply", "")), ComException);
    EXPECT_THROW(sut.Make(22), std::out_of_range);
}

}  // namespace
}  // namespace ara::com::internal
