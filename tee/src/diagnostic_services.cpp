#include "tee/diagnostic_services.hpp"

#include <utility>

#include "ara/com/application_error_exception.hpp"
#include "csc_logging/csc_logging.hpp"
#include "tee/access_status.hpp"

namespace qervo::tee {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr std::size_t kChallengeSize = 16;

std::uint8_t ApplicationError(const char* operation,
                              const ara::com::ApplicationErrorException& error) {
    CSCLogging::Error(CSCLogEntry()
                      << "DiagnosticServices: " << operation << "() exception=" << error.what());
    return static_cast<std::uint8_t>(error.Error().Value());
}

}  // namespace

DiagnosticServices::DiagnosticServices(ServiceBinding<Proxy> binding)
    : binding_(std::move(binding)) {}

DiagnosticServices::~DiagnosticServices() {
    if (findServiceHandle_) {
        binding_.stopFindService(*findServiceHandle_);
    }
}

void DiagnosticServices::Initialize() {
    CSCLogging::Info("DiagnosticServices::Initialize()");
    if (findServiceHandle_) {
        binding_.stopFindService(*std::exchange(findServiceHandle_, std::nullopt));
    }
    findServiceHandle_ = binding_.startFindService(
        [this](ara::com::ServiceHandleContainer<Proxy::HandleType> handles,
               ara::com::FindServiceHandle) { OnAvailability(handles); });
}

void DiagnosticServices::OnAvailability(
    const ara::com::ServiceHandleContainer<Proxy::HandleType>& handles) {
    if (handles.empty()) {
        CSCLogging::Info("DiagnosticServices service stopped");
        std::atomic_store(&proxy_, std::shared_ptr<Proxy>());
        return;
    }
    std::atomic_store(&proxy_, binding_.createProxy(handles.front()));
    CSCLogging::Info("DiagnosticServices service found");
}

std::shared_ptr<DiagnosticServices::Proxy> DiagnosticServices::CurrentProxy() const {
    return std::atomic_load(&proxy_);
}

bool DiagnosticServices::IsReady() const {
    return CurrentProxy() != nullptr;
}

std::uint8_t DiagnosticServices::zelk_handle_dlc(const std::vector<std::uint8_t>& dlc) {
    const auto proxy = CurrentProxy();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    try {
        proxy->HandleDlc(dlc).get();
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        return ApplicationError("zelk_handle_dlc", error);
    }
}

std::uint8_t DiagnosticServices::zelk_get_identity_hash(
    std::vector<std::uint8_t>& identityHash, const std::vector<std::uint8_t>& challenge) {
    const auto proxy = CurrentProxy();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    if (challenge.size() != kChallengeSize) {
        CSCLogging::Error(CSCLogEntry() << "DiagnosticServices: zelk_get_identity_hash() Error! "
                                           "challenge parameter size isn't "
                                        << kChallengeSize);
        return access_status::kBadChallengeSize;
    }
    Proxy::Hash input{};
    std::copy(challenge.begin(), challenge.end(), input.begin());
    try {
        const auto output = proxy->GetIdentityHash(input).get();
        identityHash.assign(output.identityHash.begin(), output.identityHash.end());
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        return ApplicationError("zelk_get_identity_hash", error);
    }
}

std::uint8_t DiagnosticServices::zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) {
    const auto proxy = CurrentProxy();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    try {
        const auto output = proxy->GetPssHash().get();
        pssHash.assign(output.pssHash.begin(), output.pssHash.end());
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        return ApplicationError("zelk_get_pss_hash", error);
    }
}

std::uint8_t DiagnosticServices::zelk_get_training_counter(std::uint16_t& trainingCounter) {
    const auto proxy = CurrentProxy();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    try {
        trainingCounter = proxy->GetTrainingCounter().get().trainingCounter;
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        return ApplicationError("zelk_get_training_counter", error);
    }
}

std::uint8_t DiagnosticServices::zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) {
    const auto proxy = CurrentProxy();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    try {
        const auto output = proxy->GetZelkVIN().get();
        vin.assign(output.vin.begin(), output.vin.end());
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        return ApplicationError("zelk_get_zelk_vin", error);
    }
}

}  // namespace qervo::tee
