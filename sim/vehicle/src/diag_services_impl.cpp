#include "diag_services_impl.hpp"

#include <algorithm>
#include <chrono>
#include <thread>

#include "csc_logging/csc_logging.hpp"

namespace vehicle_sim {

namespace diag = zelk::interfaces::diagservices;
using csc_logging::CSCLogging;

namespace {

template <std::size_t N>
std::array<std::uint8_t, N> ToArray(const std::vector<std::uint8_t>& bytes) {
    std::array<std::uint8_t, N> array{};
    std::copy_n(bytes.begin(), std::min(N, bytes.size()), array.begin());
    return array;
}

diag::DiagServicesErrc ErrcOf(DlcVerdict verdict) {
    switch (verdict) {
        case DlcVerdict::kMalformatted:
            return diag::DiagServicesErrc::ZELK_ERROR_DLC_MALFORMATTED;
        case DlcVerdict::kUnsupportedVersion:
            return diag::DiagServicesErrc::ZELK_ERROR_DLC_UNSUPPORTED_VERSION;
        case DlcVerdict::kVerificationMismatch:
            return diag::DiagServicesErrc::ZELK_ERROR_DLC_VERIFICATION_MISMATCH;
        case DlcVerdict::kInvalidMac:
            return diag::DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC;
        case DlcVerdict::kPreconditionNotMet:
            return diag::DiagServicesErrc::ZELK_ERROR_PRECONDITION_NOT_MET;
        case DlcVerdict::kPersistFailed:
            return diag::DiagServicesErrc::ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED;
        case DlcVerdict::kInstalled:
            break;
    }
    return diag::DiagServicesErrc::ZELK_ERROR_GENERAL;
}

}  // namespace

DiagServicesImpl::DiagServicesImpl(Vehicle& vehicle, FailPoints& failPoints)
    : vehicle_(vehicle), failPoints_(failPoints) {}

DiagServicesImpl::~DiagServicesImpl() {
    StopOfferService();
}

void DiagServicesImpl::FailIfArmed(const char* method) {
    if (const auto hit = failPoints_.Take(method)) {
        CSCLogging::Warning(std::string(method) + ": fail point raises " + hit->error);
        throw diag::MakeApplicationError(static_cast<diag::DiagServicesErrc>(hit->code));
    }
}

void DiagServicesImpl::CheckVerificationHash(const Hash& verificationHash) {
    const auto pss = vehicle_.PssHash();
    if (!std::equal(pss.begin(), pss.end(), verificationHash.begin(), verificationHash.end())) {
        throw diag::MakeApplicationError(
            diag::DiagServicesErrc::ZELK_ERROR_DLC_VERIFICATION_MISMATCH);
    }
}

diag::DebugOutput DiagServicesImpl::Debug(const std::vector<std::uint8_t>& request) {
    return {request};
}

diag::GetIdentityHashOutput DiagServicesImpl::GetIdentityHash(const Hash& challenge) {
    FailIfArmed("GetIdentityHash");
    return {ToArray<16>(vehicle_.IdentityHash(challenge))};
}

diag::GetKeyListOutput DiagServicesImpl::GetKeyList() {
    return {{Vehicle::kBaseCertificateTypeId, Vehicle::kRootCertificateTypeId}};
}

diag::GetMissingKeyListOutput DiagServicesImpl::GetMissingKeyList() {
    return {};
}

diag::GetPssHashOutput DiagServicesImpl::GetPssHash() {
    FailIfArmed("GetPssHash");
    return {ToArray<16>(vehicle_.PssHash())};
}

diag::GetStatusOutput DiagServicesImpl::GetStatus() {
    return {0, vehicle_.TrainingCounter()};
}

diag::GetTrainingCounterOutput DiagServicesImpl::GetTrainingCounter() {
    FailIfArmed("GetTrainingCounter");
    return {vehicle_.TrainingCounter()};
}

diag::GetZelkVINOutput DiagServicesImpl::GetZelkVIN() {
    FailIfArmed("GetZelkVIN");
    const auto vin = vehicle_.Vin();
    return {ToArray<17>(std::vector<std::uint8_t>(vin.begin(), vin.end()))};
}

void DiagServicesImpl::HandleDlc(const std::vector<std::uint8_t>& dlc) {
    FailIfArmed("HandleDlc");
    const bool failPersist = failPoints_.Take("persist").has_value();
    if (failPoints_.Take("stall")) {
        CSCLogging::Warning("HandleDlc: fail point stalls the call for 30 s");
        std::this_thread::sleep_for(std::chrono::seconds(30));
    }
    std::string detail;
    const auto verdict = vehicle_.HandleDlc(dlc, failPersist, detail);
    if (verdict != DlcVerdict::kInstalled) {
        throw diag::MakeApplicationError(ErrcOf(verdict));
    }
}

}  // namespace vehicle_sim
