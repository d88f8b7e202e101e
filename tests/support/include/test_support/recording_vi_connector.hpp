#ifndef TEST_SUPPORT_RECORDING_VI_CONNECTOR_HPP
#define TEST_SUPPORT_RECORDING_VI_CONNECTOR_HPP

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vi_connector/vi_connector.hpp"

namespace kelvane::testing {

/// Real TCP through the host connector, recording what it was asked for; or a
/// descriptor or failure status the test hands in.
class RecordingVIConnector : public vi_connector::VIConnector {
public:
    RecordingVIConnector() : VIConnector(NoConfiguration{}) {}

    vi_connector::SocketResult SocketConnect(const std::string& transactionTypeId,
                                             const std::string& host, std::uint16_t port) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back({transactionTypeId, host, port});
        if (fixedResult) {
            return *fixedResult;
        }
        return VIConnector::SocketConnect(transactionTypeId, host, port);
    }

    struct Call {
        std::string transactionTypeId;
        std::string host;
        std::uint16_t port;
    };
    std::mutex mutex;
    std::vector<Call> calls;
    std::optional<vi_connector::SocketResult> fixedResult;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_RECORDING_VI_CONNECTOR_HPP
