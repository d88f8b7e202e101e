#include "service_domains.hpp"

namespace ara::com::internal {

const ErrorDomain& DiagServicesDomain() {
    static const ErrorDomain domain("DiagServices", "zelk.interfaces.diagservices.DiagServices",
                                    {
                                        {"ZELK_ERROR_GENERAL", 1},
                                        {"ZELK_ERROR_TYPEID_NOT_SUPPORTED", 21},
                                        {"ZELK_ERROR_BUSY", 23},
                                        {"ZELK_ERROR_PRECONDITION_NOT_MET", 24},
                                        {"ZELK_ERROR_NVM_WRITE_FAILED", 28},
                                        {"ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED", 29},
                                        {"ZELK_ERROR_DLC_INVALID_MAC", 30},
                                        {"ZELK_ERROR_DLC_MALFORMATTED", 31},
                                        {"ZELK_ERROR_DLC_DEPRECATED", 32},
                                        {"ZELK_ERROR_DLC_VERIFICATION_MISMATCH", 33},
                                        {"ZELK_ERROR_DLC_UNSUPPORTED_VERSION", 34},
                                        {"ZELK_ERROR_DLC_KEYGENUS_NOT_DERIVABLE", 35},
                                        {"ZELK_ERROR_DLC_MISSING_KEY", 36},
                                        {"ZELK_ERROR_CONFIG_NVM_RAM_BUFFER_SIZE_TOO_SMALL", 40},
                                        {"ZELK_ERROR_CONFIG_MAX_DLC_LENGTH_TOO_SMALL", 41},
                                        {"ZELK_ERROR_CONFIG_TYPEID_NOT_CONFIGURED", 42},
                                        {"ZELK_ERROR_CRYPTO_E_BUSY", 50},
                                        {"ZELK_ERROR_CRYPTO_E_QUEUE_FULL", 51},
                                        {"ZELK_ERROR_CRYPTO_E_KEY_WRITE_FAIL", 53},
                                        {"ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH", 54},
                                    });
    return domain;
}

const ErrorDomain& TypeIdAccessDomain() {
    static const ErrorDomain domain("TypeIdAccess", "zelk.interfaces.typeidaccess.TypeIdAccess",
                                    {
                                        {"ZELK_ERROR_GENERAL", 2},
                                        {"ZELK_ERROR_INVALID_TYPEID", 20},
                                        {"ZELK_ERROR_TYPEID_NOT_SUPPORTED", 21},
                                        {"ZELK_ERROR_CORRUPTED_KEY_DATA", 22},
                                        {"ZELK_ERROR_BUSY", 23},
                                        {"ZELK_ERROR_UNEXPECTED_GENUS", 27},
                                        {"ZELK_ERROR_CRYPTO_E_BUSY", 50},
                                        {"ZELK_ERROR_CRYPTO_E_QUEUE_FULL", 51},
                                    });
    return domain;
}

const ErrorDomain& GenericUdsServiceDomain() {
    static const ErrorDomain domain("GenericUDSService", "ac.dm.genericuds.GenericUDSService",
                                    {{"UDSServiceFailed", 2}});
    return domain;
}

}  // namespace ara::com::internal
