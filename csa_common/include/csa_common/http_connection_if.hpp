#ifndef CSA_COMMON_HTTP_CONNECTION_IF_HPP
#define CSA_COMMON_HTTP_CONNECTION_IF_HPP

#include <cstdint>
#include <string>

#include "csa_common/http_protocol.hpp"

namespace csa_common {

/// One plain-text HTTP/1.1 exchange at a time. The three-argument forms
/// return 0 (a final response was parsed into the protocol, whatever its
/// status), 1 (no connection), 2 (bad URL) or 3 (nothing could be received).
/// The other forms use the connection's own host, port and transaction type
/// and return true exactly when the code was 0.
class HttpConnectionIf {
public:
    virtual ~HttpConnectionIf() = default;

    virtual bool Test() const = 0;
    virtual std::uint8_t Test(const std::string& operationTypeId, const std::string& url) const = 0;
    virtual bool Get(HttpProtocol* protocol) const = 0;
    virtual std::uint8_t Get(HttpProtocol& protocol, const std::string& operationTypeId,
                             const std::string& url) const = 0;
    virtual bool Post(HttpProtocol* protocol) const = 0;
    virtual std::uint8_t Post(HttpProtocol& protocol, const std::string& operationTypeId,
                              const std::string& url) const = 0;
    virtual bool Put(HttpProtocol* protocol) const = 0;
    virtual std::uint8_t Put(HttpProtocol& protocol, const std::string& operationTypeId,
                             const std::string& url) const = 0;
};

}  // namespace csa_common

#endif  // CSA_COMMON_HTTP_CONNECTION_IF_HPP
