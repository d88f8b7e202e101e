#include "tee/diagnostic_services.hpp"

#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "service_call.hpp"
#include "tee/access_status.hpp"

namespace qervo::tee {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr std::size_t kChallengeSize = 16;

std::string Failure(const char* operation) {
    return std::string("DiagnosticServices: ") + operation + "() exception=";
}

}  // namespace

DiagnosticServices::DiagnosticServices(ServiceBinding<Proxy> binding)
    : service_("DiagnosticServices", std::move(binding)) {}

DiagnosticServices::~DiagnosticServices() = default;

void DiagnosticServices::Initialize() {
    CSCLogging::Info("DiagnosticServices::Initialize()");
    service_.Start();
}

bool DiagnosticServices::IsReady() const {
    return service_.IsReady();
}

std::uint8_t DiagnosticServices::zelk_handle_dlc(const std::vector<std::uint8_t>& dlc) {
    const auto proxy = service_.Current();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    return CallService(Failure("zelk_handle_dlc"), [&] { proxy->HandleDlc(dlc).get(); });
}

std::uint8_t DiagnosticServices::zelk_get_identity_hash(
    std::vector<std::uint8_t>& identityHash, const std::vector<std::uint8_t>& challenge) {
    const auto proxy = service_.Current();
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
    return CallService(Failure("zelk_get_identity_hash"), [&] {
        const auto output = proxy->GetIdentityHash(input).get();
        identityHash.assign(output.identityHash.begin(), output.identityHash.end());
    });
}

std::uint8_t DiagnosticServices::zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) {
    const auto proxy = service_.Current();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    return CallService(Failure("zelk_get_pss_hash"), [&] {
        const auto output = proxy->GetPssHash().get();
        pssHash.assign(output.pssHash.begin(), output.pssHash.end());
    });
}

std::uint8_t DiagnosticServices::zelk_get_training_counter(std::uint16_t& trainingCounter) {
    const auto proxy = service_.Current();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    return CallService(Failure("zelk_get_training_counter"), [&] {
        trainingCounter = proxy->GetTrainingCounter().get().trainingCounter;
    });
}

std::uint8_t DiagnosticServices::zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) {
    const auto proxy = service_.Current();
    if (!proxy) {
        return access_status::kNotAvailable;
    }
    return CallService(Failure("zelk_get_zelk_vin"), [&] {
        const auto output = proxy->GetZelkVIN().get();
        vin.assign(output.vin.begin(), output.vin.end());
    });
}

}  // namespace qervo::tee
