#include "tee/zelk_online_update_client.hpp"

#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "tee/access_status.hpp"
#include "tee/diagnostic_services.hpp"
#include "tee/generic_uds_services.hpp"
#include "tee/monotonic_sleep.hpp"
#include "tee/typeid_access_service.hpp"

namespace qervo::tee {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

template <typename Errc>
constexpr std::uint8_t Code(Errc error) {
    return static_cast<std::uint8_t>(error);
}

// Every error the diagnostic service declares is a key-management failure.
bool IsDiagServicesApplicationError(std::uint8_t status) {
    using Errc = zelk::interfaces::diagservices::DiagServicesErrc;
    switch (status) {
        case Code(Errc::ZELK_ERROR_GENERAL):
        case Code(Errc::ZELK_ERROR_TYPEID_NOT_SUPPORTED):
        case Code(Errc::ZELK_ERROR_BUSY):
        case Code(Errc::ZELK_ERROR_PRECONDITION_NOT_MET):
        case Code(Errc::ZELK_ERROR_NVM_WRITE_FAILED):
        case Code(Errc::ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED):
        case Code(Errc::ZELK_ERROR_DLC_INVALID_MAC):
        case Code(Errc::ZELK_ERROR_DLC_MALFORMATTED):
        case Code(Errc::ZELK_ERROR_DLC_DEPRECATED):
        case Code(Errc::ZELK_ERROR_DLC_VERIFICATION_MISMATCH):
        case Code(Errc::ZELK_ERROR_DLC_UNSUPPORTED_VERSION):
        case Code(Errc::ZELK_ERROR_DLC_KEYGENUS_NOT_DERIVABLE):
        case Code(Errc::ZELK_ERROR_DLC_MISSING_KEY):
        case Code(Errc::ZELK_ERROR_CONFIG_NVM_RAM_BUFFER_SIZE_TOO_SMALL):
        case Code(Errc::ZELK_ERROR_CONFIG_MAX_DLC_LENGTH_TOO_SMALL):
        case Code(Errc::ZELK_ERROR_CONFIG_TYPEID_NOT_CONFIGURED):
        case Code(Errc::ZELK_ERROR_CRYPTO_E_BUSY):
        case Code(Errc::ZELK_ERROR_CRYPTO_E_QUEUE_FULL):
        case Code(Errc::ZELK_ERROR_CRYPTO_E_KEY_WRITE_FAIL):
        case Code(Errc::ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH):
            return true;
        default:
            return false;
    }
}

}  // namespace

ZELKOnlineUpdateClient::Dependencies ZELKOnlineUpdateClient::Dependencies::Default(
    std::string tesmoIdPath) {
    return {[] { return std::make_shared<DiagnosticServices>(); },
            [] { return std::make_shared<TypeidAccessService>(); },
            [tesmoIdPath = std::move(tesmoIdPath)] {
                return std::make_shared<GenericUdsServices>(tesmoIdPath);
            },
            &MonotonicSleep};
}

ZELKOnlineUpdateClient::Dependencies ZELKOnlineUpdateClient::Dependencies::Default() {
    return Default(TesmoIdPath());
}

std::shared_ptr<ZELKOnlineUpdateAPI> ZELKOnlineUpdateClient::get_instance() {
    static const std::shared_ptr<ZELKOnlineUpdateClient> instance(new ZELKOnlineUpdateClient);
    instance->init();
    return instance;
}

ZELKOnlineUpdateClient::ZELKOnlineUpdateClient()
    : ZELKOnlineUpdateClient(Dependencies::Default()) {}

ZELKOnlineUpdateClient::ZELKOnlineUpdateClient(Dependencies dependencies)
    : component_(false, ""), dependencies_(std::move(dependencies)) {}

ZELKOnlineUpdateClient::~ZELKOnlineUpdateClient() {
    genericUdsServices_.reset();
    typeidAccessService_.reset();
    diagnosticServices_.reset();
}

void ZELKOnlineUpdateClient::init() {
    diagnosticServices_ = dependencies_.makeDiagnosticServices();
    diagnosticServices_->Initialize();
    typeidAccessService_ = dependencies_.makeTypeidAccessService();
    typeidAccessService_->Initialize();
    genericUdsServices_ = dependencies_.makeGenericUdsServices();
    genericUdsServices_->Initialize();
}

bool ZELKOnlineUpdateClient::DiagnosticServicesReady(const char* operation) const {
    if (diagnosticServices_ && diagnosticServices_->IsReady()) {
        return true;
    }
    CSCLogging::Error(CSCLogEntry() << operation << "() Error! diagservices isn't ready");
    return false;
}

ClientError ZELKOnlineUpdateClient::zelk_handle_dlc(std::vector<std::uint8_t> dlc) {
    if (!DiagnosticServicesReady("zelk_handle_dlc")) {
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return diagServicesErrorToClientError(diagnosticServices_->zelk_handle_dlc(dlc));
}

ClientError ZELKOnlineUpdateClient::zelk_get_certificate(std::string typeId,
                                                         std::string& certificate) {
    const auto ready = [this] { return typeidAccessService_ && typeidAccessService_->IsReady(); };
    for (int budget = kCertificateWaitSeconds; budget != 0 && !ready(); --budget) {
        CSCLogging::Warning(CSCLogEntry()
                            << "zelk_get_certificate() Warning! typeidaccess service isn't ready, "
                               "wait for "
                            << 1 << " s");
        dependencies_.sleep(std::chrono::seconds(1));
    }
    if (!ready()) {
        CSCLogging::Error("zelk_get_certificate() Error! typeidaccess service isn't ready");
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return typeidAccessServicesErrorToClientError(
        typeidAccessService_->zelk_get_certificate(typeId, certificate));
}

ClientError ZELKOnlineUpdateClient::zelk_get_identity_hash(
    std::vector<std::uint8_t>& identityHash, const std::vector<std::uint8_t>& challenge) {
    if (!DiagnosticServicesReady("zelk_get_identity_hash")) {
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return diagServicesErrorToClientError(
        diagnosticServices_->zelk_get_identity_hash(identityHash, challenge));
}

ClientError ZELKOnlineUpdateClient::zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) {
    if (!DiagnosticServicesReady("zelk_get_pss_hash")) {
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return diagServicesErrorToClientError(diagnosticServices_->zelk_get_pss_hash(pssHash));
}

ClientError ZELKOnlineUpdateClient::zelk_get_training_counter(std::uint16_t& trainingCounter) {
    if (!DiagnosticServicesReady("zelk_get_training_counter")) {
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return diagServicesErrorToClientError(
        diagnosticServices_->zelk_get_training_counter(trainingCounter));
}

ClientError ZELKOnlineUpdateClient::zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) {
    if (!DiagnosticServicesReady("zelk_get_zelk_vin")) {
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return diagServicesErrorToClientError(diagnosticServices_->zelk_get_zelk_vin(vin));
}

ClientError ZELKOnlineUpdateClient::ecu_get_part_number(std::string& partNumber) {
    partNumber = kPartNumber;
    return ClientError::CLIENT_OK;
}

ClientError ZELKOnlineUpdateClient::ecu_get_diagnostic_id(std::string& diagnosticId) {
    if (!genericUdsServices_) {
        CSCLogging::Error("ecu_get_diagnostic_id() Error! genericuds isn't initialised");
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return getericUdsAccessErrorToClientError(
        genericUdsServices_->ecu_get_diagnostic_id(diagnosticId));
}

ClientError ZELKOnlineUpdateClient::ecu_get_tesmo_id_string(std::string& tesmoIdString) {
    if (!genericUdsServices_) {
        CSCLogging::Error("ecu_get_tesmo_id_string() Error! genericuds isn't initialised");
        return ClientError::CLIENT_ERROR_NOT_READY;
    }
    return getericUdsAccessErrorToClientError(
        genericUdsServices_->ecu_get_tesmo_id_string(tesmoIdString));
}

ClientError ZELKOnlineUpdateClient::diagServicesErrorToClientError(std::uint8_t status) const {
    switch (status) {
        case access_status::kNotAvailable:
            return ClientError::CLIENT_ERROR_NOT_READY;
        case 102:
            return ClientError::CLIENT_ERROR_TYPEID_ACCESS;
        case access_status::kBadChallengeSize:
            return ClientError::CLIENT_ERROR_PARAMETER;
        default:
            return IsDiagServicesApplicationError(status) ? ClientError::CLIENT_ERROR_ZELK
                                                          : ClientError::CLIENT_OK;
    }
}

ClientError ZELKOnlineUpdateClient::typeidAccessServicesErrorToClientError(
    std::uint8_t status) const {
    using Errc = zelk::interfaces::typeidaccess::TypeIdAccessErrc;
    switch (status) {
        case access_status::kNotAvailable:
            return ClientError::CLIENT_ERROR_NOT_READY;
        case access_status::kUnknownTypeId:
            return ClientError::CLIENT_ERROR_PARAMETER;
        case Code(Errc::ZELK_ERROR_GENERAL):
        case Code(Errc::ZELK_ERROR_INVALID_TYPEID):
        case Code(Errc::ZELK_ERROR_TYPEID_NOT_SUPPORTED):
        case Code(Errc::ZELK_ERROR_CORRUPTED_KEY_DATA):
        case Code(Errc::ZELK_ERROR_BUSY):
        case Code(Errc::ZELK_ERROR_UNEXPECTED_GENUS):
            return ClientError::CLIENT_ERROR_TYPEID_ACCESS;
        case Code(Errc::ZELK_ERROR_CRYPTO_E_BUSY):
        case Code(Errc::ZELK_ERROR_CRYPTO_E_QUEUE_FULL):
            return ClientError::CLIENT_ERROR_ZELK;
        default:
            return ClientError::CLIENT_OK;
    }
}

ClientError ZELKOnlineUpdateClient::getericUdsAccessErrorToClientError(std::uint8_t status) const {
    switch (status) {
        case access_status::kNotAvailable:
            return ClientError::CLIENT_ERROR_NOT_READY;
        case access_status::kIdentityFileUnreadable:
            return ClientError::CLIENT_ERROR_ECU_DATA;
        default:
            return ClientError::CLIENT_OK;
    }
}

}  // namespace qervo::tee
