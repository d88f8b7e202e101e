#ifndef BACKEND_BACKEND_CONNECTION_HPP
#define BACKEND_BACKEND_CONNECTION_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "backend/backend_connection_if.hpp"
#include "backend/request_params.hpp"

namespace vi_connector {
class VIConnector;
}

namespace kelvane_client {

/// Each byte as two upper-case hexadecimal digits, no separator ("0AFF").
void hashToString(const std::vector<std::uint8_t>& hash, std::string& out);
/// Exactly four upper-case hexadecimal digits ("002A").
void trainingCounterToString(std::uint16_t counter, std::string& out);

/// The backend's three exchanges over HTTP with protobuf bodies, each on a
/// new HttpConnection through the connector. Every request asks the server to
/// close the connection after answering, so an exchange ends with the answer.
class BackendConnection : public BackendConnectionIf {
public:
    explicit BackendConnection(std::shared_ptr<vi_connector::VIConnector> viConnector);
    ~BackendConnection() override = default;

    /// GET; needs status 200.
    bool ChallengeRequest(const std::string& token, const std::string& url,
                          std::string& challenge) override;
    /// POST; needs status 200.
    bool DownloadRequest(const std::string& token, const RequestParams& params,
                         const std::string& url, std::string& container) override;
    /// POST; 200 and 204 are success (0), anything else 1.
    int SendStatusFeedback(const RequestParams& params, const std::string& token,
                           const std::string& url) const override;

    /// `tesmoChallenge` of the response; empty when the body does not parse.
    std::string ParseReceivedChallenge(const std::string& payload) const;
    /// `downloadContainer` of the response; empty when the body does not parse.
    std::string ParseDlcDownloadResponse(const std::string& payload) const;
    /// The serialised request messages.
    std::string CreateDLCDownloadRequest(const RequestParams& params) const;
    std::string CreateStatusUpdateRequest(const RequestParams& params) const;

private:
    std::shared_ptr<vi_connector::VIConnector> connector;
};

}  // namespace kelvane_client

#endif  // BACKEND_BACKEND_CONNECTION_HPP
