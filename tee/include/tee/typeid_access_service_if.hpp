#ifndef TEE_TYPEID_ACCESS_SERVICE_IF_HPP
#define TEE_TYPEID_ACCESS_SERVICE_IF_HPP

#include <cstdint>
#include <string>

namespace qervo::tee {

/// The key-management system's Type-ID access service as a plain call
/// returning an access status (see access_status.hpp).
class TypeidAccessServiceIf {
public:
    virtual ~TypeidAccessServiceIf() = default;

    /// Starts looking for the service and returns at once.
    virtual void Initialize() = 0;
    /// True while the service is known to be there.
    virtual bool IsReady() const = 0;
    /// `typeId` is ZELK_BASE or ZELK_ROOT; the certificate's bytes come back
    /// unchanged in `certificate`.
    virtual std::uint8_t zelk_get_certificate(const std::string& typeId,
                                              std::string& certificate) = 0;
};

}  // namespace qervo::tee

#endif  // TEE_TYPEID_ACCESS_SERVICE_IF_HPP
