#include "vehicle_sim/vehicle.hpp"

#include "csc_logging/csc_logging.hpp"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"
#include "vehicle_sim/certificate_factory.hpp"

namespace vehicle_sim {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

const char* DlcVerdictName(DlcVerdict verdict) {
    switch (verdict) {
        case DlcVerdict::kInstalled:
            return "installed";
        case DlcVerdict::kMalformatted:
            return "ZELK_ERROR_DLC_MALFORMATTED";
        case DlcVerdict::kUnsupportedVersion:
            return "ZELK_ERROR_DLC_UNSUPPORTED_VERSION";
        case DlcVerdict::kVerificationMismatch:
            return "ZELK_ERROR_DLC_VERIFICATION_MISMATCH";
        case DlcVerdict::kInvalidMac:
            return "ZELK_ERROR_DLC_INVALID_MAC";
        case DlcVerdict::kPreconditionNotMet:
            return "ZELK_ERROR_PRECONDITION_NOT_MET";
        case DlcVerdict::kPersistFailed:
            return "ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED";
    }
    return "?";
}

Vehicle::Vehicle(std::string directory, VehicleState state, std::chrono::seconds challengeLifetime,
                 std::function<Clock::time_point()> now)
    : directory_(std::move(directory))
    , challengeLifetime_(challengeLifetime)
    , now_(std::move(now))
    , state_(std::move(state)) {}

std::vector<std::uint8_t> Vehicle::IdentityHash(const Challenge& challenge) {
    const std::vector<std::uint8_t> bytes(challenge.begin(), challenge.end());
    const std::lock_guard<std::mutex> lock(mutex_);
    pending_ = PendingChallenge{bytes, now_()};
    return sim_common::IdentityHash(state_.keys, bytes);
}

std::vector<std::uint8_t> Vehicle::PssHash() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sim_common::PssHash(state_.keys);
}

std::uint16_t Vehicle::TrainingCounter() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_.trainingCounter;
}

std::string Vehicle::Vin() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_.vin;
}

std::optional<std::vector<std::uint8_t>> Vehicle::Certificate(std::uint16_t typeId) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::vector<std::uint8_t>* der = nullptr;
    if (typeId == kBaseCertificateTypeId) {
        der = &state_.baseCertificate;
    } else if (typeId == kRootCertificateTypeId) {
        der = &state_.rootCertificate;
    } else {
        return std::nullopt;
    }
    if (!state_.pemCertificates) {
        return *der;
    }
    const std::string pem = CertificateFactory::ToPem(*der);
    return std::vector<std::uint8_t>(pem.begin(), pem.end());
}

std::optional<std::vector<std::uint8_t>> Vehicle::HandleUds(
    std::uint8_t sid, const std::vector<std::uint8_t>& data) const {
    constexpr std::uint8_t kReadDataByIdentifier = 0x22;
    if (sid != kReadDataByIdentifier || data != std::vector<std::uint8_t>{0xF1, 0x87}) {
        return std::nullopt;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::uint8_t> response{0xF1, 0x87};
    response.insert(response.end(), state_.partNumber.begin(), state_.partNumber.end());
    return response;
}

DlcVerdict Vehicle::Verify(const std::vector<std::uint8_t>& bytes, std::string& detail) const {
    const auto parsed = sim_common::ParseDlcContainer(bytes);
    if (parsed.error == sim_common::ContainerParseError::kMalformatted) {
        detail = "container of " + std::to_string(bytes.size()) + " bytes is not a DLC container";
        return DlcVerdict::kMalformatted;
    }
    if (parsed.error == sim_common::ContainerParseError::kUnsupportedVersion) {
        detail = "container format version " + std::to_string(bytes[4]) + " is not supported";
        return DlcVerdict::kUnsupportedVersion;
    }
    const auto& container = parsed.container;
    if (container.vin != state_.vin) {
        detail = "container is for VIN " + container.vin;
        return DlcVerdict::kVerificationMismatch;
    }
    if (container.trainingCounter != state_.trainingCounter) {
        detail = "container is for training counter " + std::to_string(container.trainingCounter) +
                 ", the vehicle is at " + std::to_string(state_.trainingCounter);
        return DlcVerdict::kVerificationMismatch;
    }
    if (!pending_) {
        detail = "no challenge was hashed since the last update";
        return DlcVerdict::kVerificationMismatch;
    }
    if (container.challenge != pending_->bytes) {
        detail = "container answers challenge " + sim_common::ToHex(container.challenge) +
                 ", not the latest one " + sim_common::ToHex(pending_->bytes);
        return DlcVerdict::kVerificationMismatch;
    }
    if (now_() - pending_->issuedAt > challengeLifetime_) {
        detail = "the challenge is older than " + std::to_string(challengeLifetime_.count()) + " s";
        return DlcVerdict::kVerificationMismatch;
    }
    if (!sim_common::HasValidMac(bytes, state_.keys)) {
        detail = "the MAC does not verify with the current key";
        return DlcVerdict::kInvalidMac;
    }
    if (state_.trainingCounter == 0xFFFF) {
        detail = "the training counter is exhausted";
        return DlcVerdict::kPreconditionNotMet;
    }
    return DlcVerdict::kInstalled;
}

DlcVerdict Vehicle::HandleDlc(const std::vector<std::uint8_t>& bytes, bool failPersist,
                              std::string& detail) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const DlcVerdict verdict = Verify(bytes, detail);
    if (verdict != DlcVerdict::kInstalled) {
        CSCLogging::Warning("HandleDlc: " + std::string(DlcVerdictName(verdict)) + ": " + detail);
        return verdict;
    }
    const auto container = sim_common::ParseDlcContainer(bytes).container;
    VehicleState next = state_;
    next.keys = *sim_common::DecryptNextKeys(container, state_.keys);
    next.trainingCounter = static_cast<std::uint16_t>(state_.trainingCounter + 1);
    const auto now = std::chrono::system_clock::now();
    next.baseCertificate =
        CertificateFactory::IssueBase({state_.rootKey, state_.rootCertificate}, state_.baseKey,
                                      state_.vin, now, now + kBaseCertificateLifetime);
    std::string error = "simulated key-store write failure";
    if (failPersist || !next.Save(directory_, error)) {
        detail = error;
        CSCLogging::Error("HandleDlc: key store not written: " + error);
        return DlcVerdict::kPersistFailed;
    }
    if (!error.empty()) {
        // Written and renamed: memory follows the disk.
        CSCLogging::Warning("HandleDlc: key store written, not yet durable: " + error);
    }
    state_ = std::move(next);
    pending_.reset();
    detail = "training counter " + std::to_string(state_.trainingCounter);
    CSCLogging::Info(CSCLogEntry()
                     << "HandleDlc: new key material installed, training counter "
                     << state_.trainingCounter << ", Base certificate valid for 3 years");
    return DlcVerdict::kInstalled;
}

VehicleState Vehicle::State() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

}  // namespace vehicle_sim
