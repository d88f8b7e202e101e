#ifndef BACKEND_SIM_BACKEND_SERVICE_HPP
#define BACKEND_SIM_BACKEND_SERVICE_HPP

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "backend_sim/backend_config.hpp"
#include "backend_sim/challenge_registry.hpp"
#include "backend_sim/fault_plan.hpp"
#include "backend_sim/http_message.hpp"
#include "sim_common/json.hpp"

namespace backend_sim {

/// Content types of the three exchanges, byte for byte as the client sends
/// and expects them.
constexpr const char* kChallengeRequestType =
    "application/TTVI_CO_ZelkDlcChallengeRequest_v1+proto";
constexpr const char* kChallengeResponseType =
    "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto";
constexpr const char* kDownloadRequestType = "application/TTVI_CO_zelkDlcRequest_v3+proto";
constexpr const char* kDownloadResponseType = "application/TTVI_CT_zelkDlcResponse_v3+proto";
constexpr const char* kFeedbackRequestType =
    "application/TTVI_CO_ZelkDlcStatusFeedbackRequest_v3+proto";

/// The backend's side of the three exchanges, without any transport: checks
/// a request, answers it and describes both in an event. Thread-safe.
class BackendService {
public:
    using Clock = ChallengeRegistry::Clock;

    explicit BackendService(const BackendConfig& config,
                            std::function<Clock::time_point()> now = Clock::now);

    /// The exchange whose path is `path`, if any.
    std::optional<Exchange> ExchangeOf(const std::string& path) const;
    /// The Content-Type of a successful answer of `exchange` ("" for feedback).
    static const char* ResponseContentType(Exchange exchange);

    /// Answers one request of `exchange`. `corruptMac` makes a download carry
    /// a container whose MAC does not verify. Adds "request", "result" and,
    /// when there is one, "response" to `event`.
    HttpResponse Serve(Exchange exchange, const HttpRequest& request, bool corruptMac,
                       sim_common::Json& event);

private:
    HttpResponse ServeChallenge(sim_common::Json& event);
    HttpResponse ServeDownload(const HttpRequest& request, bool corruptMac,
                               sim_common::Json& event);
    HttpResponse ServeFeedback(const HttpRequest& request, sim_common::Json& event);
    /// The problem with the request's method, token or content type, if any.
    std::optional<HttpResponse> CheckEnvelope(Exchange exchange, const HttpRequest& request,
                                              sim_common::Json& event) const;
    /// Whether `identityHashHex` is what vehicle `vin` at training counter `counter` computes for
    /// the challenge.
    bool IdentityHashMatches(const std::string& vin, std::uint16_t counter,
                             const std::string& challengeHex,
                             const std::string& identityHashHex) const;

    const BackendConfig config_;
    std::function<Clock::time_point()> now_;
    ChallengeRegistry challenges_;
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_BACKEND_SERVICE_HPP
