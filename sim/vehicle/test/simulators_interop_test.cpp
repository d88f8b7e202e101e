#include <botan/base64.h>
#include <gtest/gtest.h>

#include "backend_sim/backend_service.hpp"
#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"
#include "sim_common/hex.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/vehicle.hpp"
#include "vehicle_state_fixture.hpp"

namespace vehicle_sim {
namespace {

namespace pb = domain::backend::zelkDlc::proto;
using namespace std::chrono_literals;

/// Plays the client between the two simulators: the exchanges as the client
/// runs them, the values as the client formats them.
class Client {
public:
    Client(backend_sim::BackendService& backend, Vehicle& vehicle)
        : backend_(backend), vehicle_(vehicle) {}

    /// One update; the vehicle's verdict on the container.
    DlcVerdict Update() {
        pb::zelkDlcChallengeResponseType challenge;
        challenge.ParseFromString(
            Serve(backend_sim::Exchange::kChallenge, "GET", backend_sim::kChallengeRequestType, "")
                .body);
        challenge_ = challenge.tesmochallenge();
        const auto download =
            Serve(backend_sim::Exchange::kDownload, "POST", backend_sim::kDownloadRequestType,
                  Fill<pb::zelkDlcRequestType>().SerializeAsString());
        downloadStatus_ = download.status;
        pb::zelkDlcResponseType response;
        response.ParseFromString(download.body);
        const auto container = Botan::base64_decode(response.downloadcontainer());
        std::string detail;
        const auto verdict =
            vehicle_.HandleDlc({container.begin(), container.end()}, false, detail);
        const auto feedback =
            Serve(backend_sim::Exchange::kFeedback, "POST", backend_sim::kFeedbackRequestType,
                  Fill<pb::zelkDlcStatusFeedbackRequestType>().SerializeAsString());
        EXPECT_EQ(feedback.status, 204);
        return verdict;
    }

    int LastDownloadStatus() const { return downloadStatus_; }
    const std::string& LastFeedbackEvent() const { return lastEvent_; }

private:
    template <typename Message>
    Message Fill() {
        const auto bytes = *sim_common::FromHex(challenge_);
        Vehicle::Challenge challenge{};
        std::copy(bytes.begin(), bytes.end(), challenge.begin());
        Message message;
        message.set_tesmochallenge(challenge_);
        message.set_diagnosticid("C003");
        message.set_zelkvin(vehicle_.Vin());
        message.set_ecutrainingcounter(sim_common::CounterToHex(vehicle_.TrainingCounter()));
        message.set_psshash(sim_common::ToHex(vehicle_.PssHash()));
        message.set_identityhash(sim_common::ToHex(vehicle_.IdentityHash(challenge)));
        return message;
    }

    backend_sim::HttpResponse Serve(backend_sim::Exchange exchange, const std::string& method,
                                    const char* contentType, const std::string& body) {
        backend_sim::HttpRequest request;
        request.method = method;
        request.headers["authorization"] = std::string("Bearer ") + sim_common::kDefaultToken;
        request.headers["content-type"] = contentType;
        request.body = body;
        sim_common::Json event;
        auto response = backend_.Serve(exchange, request, false, event);
        lastEvent_ = event.dump();
        return response;
    }

    backend_sim::BackendService& backend_;
    Vehicle& vehicle_;
    std::string challenge_;
    std::string lastEvent_;
    int downloadStatus_ = 0;
};

TEST(SimulatorsInteropTest, BackendContainersInstallOnTheVehicleGenerationAfterGeneration) {
    kelvane::testing::TemporaryDirectory directory;
    backend_sim::BackendConfig config;
    config.secret = testing::kTestSecret;
    backend_sim::BackendService backend(config);
    Vehicle vehicle(directory.Path(), testing::MakeState(7), 600s);
    Client sut(backend, vehicle);

    for (std::uint16_t expected = 8; expected <= 10; ++expected) {
        ASSERT_EQ(sut.Update(), DlcVerdict::kInstalled) << "to generation " << expected;
        EXPECT_EQ(sut.LastDownloadStatus(), 200);
        EXPECT_EQ(vehicle.TrainingCounter(), expected);
        EXPECT_NE(sut.LastFeedbackEvent().find(R"("outcome":"updated")"), std::string::npos)
            << sut.LastFeedbackEvent();
        EXPECT_NE(sut.LastFeedbackEvent().find(R"("identityHashMatches":true)"), std::string::npos);
    }
}

TEST(SimulatorsInteropTest, VehicleOfAnotherSecretGetsNoContainer) {
    kelvane::testing::TemporaryDirectory directory;
    backend_sim::BackendConfig config;
    config.secret = "the backend's own secret";
    backend_sim::BackendService backend(config);
    Vehicle vehicle(directory.Path(), testing::MakeState(0), 600s);
    Client sut(backend, vehicle);

    EXPECT_EQ(sut.Update(), DlcVerdict::kMalformatted);
    EXPECT_EQ(sut.LastDownloadStatus(), 403);
    EXPECT_EQ(vehicle.TrainingCounter(), 0);
    EXPECT_NE(sut.LastFeedbackEvent().find(R"("outcome":"no-download")"), std::string::npos)
        << sut.LastFeedbackEvent();
}

}  // namespace
}  // namespace vehicle_sim
