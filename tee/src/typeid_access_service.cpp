#include "tee/typeid_access_service.hpp"

#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "service_call.hpp"
#include "tee/access_status.hpp"

namespace qervo::tee {

using csc_logging::CSCLogging;

TypeidAccessService::TypeidAccessService(ServiceBinding<Proxy> binding)
    : service_("TypeidAccessService", std::move(binding)) {}

TypeidAccessService::~TypeidAccessService() = default;

void TypeidAccessService::Initialize() {
    CSCLogging::Info("TypeidAccessService::Initialize()");
    service_.Start();
}

bool TypeidAccessService::IsReady() const {
    return service_.IsReady();
}

std::uint8_t TypeidAccessService::zelk_get_certificate(const std::string& typeId,
                                                       std::string& certificate) {
    const auto proxy = service_.Current();
    if (!proxy) {
        CSCLogging::Error("zelk_get_certificate() Error! typeidaccess service is not ready");
        return access_status::kNotAvailable;
    }
    std::uint16_t numericTypeId = 0;
    if (typeId == ZELK_BASE) {
        numericTypeId = kBaseTypeId;
    } else if (typeId == ZELK_ROOT) {
        numericTypeId = kRootTypeId;
    } else {
        return access_status::kUnknownTypeId;
    }
    return CallService("zelk_get_certificate() Exception=", [&] {
        const auto output = proxy->GetCertificate(numericTypeId).get();
        certificate.assign(output.certificate.begin(), output.certificate.end());
    });
}

}  // namespace qervo::tee
