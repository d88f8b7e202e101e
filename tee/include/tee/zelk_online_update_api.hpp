#ifndef TEE_ZELK_ONLINE_UPDATE_API_HPP
#define TEE_ZELK_ONLINE_UPDATE_API_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qervo::tee {

/// Result of every facade operation; 0 is success. The numbers are part of
/// the interface (they are logged and compared by callers), the names are not.
enum class ClientError : std::uint8_t {
    CLIENT_OK = 0,
    CLIENT_ERROR_NOT_READY = 1,
    CLIENT_ERROR_RESERVED = 2,
    CLIENT_ERROR_ECU_DATA = 3,
    CLIENT_ERROR_PARAMETER = 4,
    CLIENT_ERROR_TYPEID_ACCESS = 5,
    CLIENT_ERROR_ZELK = 6,
};

/// The one way into the key-management system and the ECU identity data.
/// A service that is missing or answers with one of its application errors
/// gives a ClientError value. Anything else (the bus lost mid-call, a broken
/// binding) is thrown on to the caller: the process ends by its designed path
/// and the service manager starts it again.
class ZELKOnlineUpdateAPI {
public:
    /// The process-wide client, (re)initialised on every call.
    static std::shared_ptr<ZELKOnlineUpdateAPI> get_instance();

    virtual ~ZELKOnlineUpdateAPI() = default;

    virtual ClientError zelk_handle_dlc(std::vector<std::uint8_t> dlc) = 0;
    /// Waits up to five seconds for the Type-ID service to appear.
    virtual ClientError zelk_get_certificate(std::string typeId, std::string& certificate) = 0;
    virtual ClientError zelk_get_identity_hash(std::vector<std::uint8_t>& identityHash,
                                               const std::vector<std::uint8_t>& challenge) = 0;
    virtual ClientError zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) = 0;
    virtual ClientError zelk_get_training_counter(std::uint16_t& trainingCounter) = 0;
    virtual ClientError zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) = 0;
    virtual ClientError ecu_get_part_number(std::string& partNumber) = 0;
    virtual ClientError ecu_get_diagnostic_id(std::string& diagnosticId) = 0;
    virtual ClientError ecu_get_tesmo_id_string(std::string& tesmoIdString) = 0;

protected:
    ZELKOnlineUpdateAPI() = default;
    ZELKOnlineUpdateAPI(const ZELKOnlineUpdateAPI&) = default;
    ZELKOnlineUpdateAPI& operator=(const ZELKOnlineUpdateAPI&) = default;
};

/// Certificate type ids understood by zelk_get_certificate().
inline constexpr const char* ZELK_BASE = "BASE";
inline constexpr const char* ZELK_ROOT = "ZELK";

}  // namespace qervo::tee

#endif  // TEE_ZELK_ONLINE_UPDATE_API_HPP
