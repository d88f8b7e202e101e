#include "tee/typeid_access_service.hpp"

#include <utility>

#include "ara/com/application_error_exception.hpp"
#include "csc_logging/csc_logging.hpp"
#include "tee/access_status.hpp"

namespace qervo::tee {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

TypeidAccessService::TypeidAccessService(ServiceBinding<Proxy> binding)
    : binding_(std::move(binding)) {}

TypeidAccessService::~TypeidAccessService() {
    if (findServiceHandle_) {
        binding_.stopFindService(*findServiceHandle_);
    }
}

void TypeidAccessService::Initialize() {
    CSCLogging::Info("TypeidAccessService::Initialize()");
    if (findServiceHandle_) {
        binding_.stopFindService(*std::exchange(findServiceHandle_, std::nullopt));
    }
    findServiceHandle_ = binding_.startFindService(
        [this](ara::com::ServiceHandleContainer<Proxy::HandleType> handles,
               ara::com::FindServiceHandle) { OnAvailability(handles); });
}

void TypeidAccessService::OnAvailability(
    const ara::com::ServiceHandleContainer<Proxy::HandleType>& handles) {
    if (handles.empty()) {
        CSCLogging::Info("TypeidAccessService service stopped");
        std::atomic_store(&proxy_, std::shared_ptr<Proxy>());
        return;
    }
    std::atomic_store(&proxy_, binding_.createProxy(handles.front()));
    CSCLogging::Info("TypeidAccessService service found");
}

bool TypeidAccessService::IsReady() const {
    return std::atomic_load(&proxy_) != nullptr;
}

std::uint8_t TypeidAccessService::zelk_get_certificate(const std::string& typeId,
                                                       std::string& certificate) {
    const auto proxy = std::atomic_load(&proxy_);
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
    try {
        const auto output = proxy->GetCertificate(numericTypeId).get();
        certificate.assign(output.certificate.begin(), output.certificate.end());
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        CSCLogging::Error(CSCLogEntry() << "zelk_get_certificate() Exception=" << error.what());
        return static_cast<std::uint8_t>(error.Error().Value());
    }
}

}  // namespace qervo::tee
