#include "error_domain.hpp"

#include <gtest/gtest.h>

#include "ara/com/com_error_domain.hpp"
#include "service_domains.hpp"
#include "zelk/interfaces/diagservices/diagservices_common.hpp"

namespace ara::com::internal {
namespace {

TEST(ErrorDomainTest, DeclaredErrorsTranslateBothWaysAndAnythingElseIsAComError) {
    const ErrorDomain& sut = DiagServicesDomain();
    const auto busy = zelk::interfaces::diagservices::MakeApplicationError(
        zelk::interfaces::diagservices::DiagServicesErrc::ZELK_ERROR_BUSY);

    const sdbus::Error onTheBus = sut.ToBusError(busy);

    EXPECT_EQ(onTheBus.getName(),
              "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_BUSY");
    EXPECT_EQ(onTheBus.getMessage(), "DiagServices::ZELK_ERROR_BUSY::23");
    EXPECT_THROW(sut.Raise(onTheBus), ApplicationErrorException);
    EXPECT_EQ(sut.ToBusError(TypeIdAccessDomain().Make(20)).getName(),
              "org.freedesktop.DBus.Error.Failed");
    EXPECT_THROW(sut.Raise(sdbus::Error(
                     "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_NEW", "")),
                 ComException);
    EXPECT_THROW(sut.Raise(sdbus::Error("org.freedesktop.DBus.Error.NoReply", "")), ComException);
    EXPECT_THROW(sut.Make(22), std::out_of_range);
}

}  // namespace
}  // namespace ara::com::internal
