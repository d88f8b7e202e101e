// Challenge texts as the backend might send them, turned into the 16 bytes the
// identity hash is computed over by KelvaneClient::ChallengeToByteBufferVector.
// A result is either empty or exactly the hexadecimal pairs of a 32-character
// text; no exception escapes.

#include <signal.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/clock.hpp"
#include "app/collaborator_factory.hpp"
#include "app/kelvane_client.hpp"
#include "backend/backend_connection_if.hpp"
#include "csa_common/clamp_control_handler_if.hpp"
#include "csa_common/mqtt_connection_if.hpp"
#include "fuzz_check.hpp"
#include "fuzz_logging.hpp"
#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"
#include "tee/zelk_online_update_api.hpp"
#include "vi_connector/vi_connector.hpp"

namespace {

using fuzz::Require;
using kelvane_client::KelvaneClient;
using qervo::tee::ClientError;
using Bytes = std::vector<std::uint8_t>;

// The client is made once with collaborators that do nothing; the conversion
// uses none of them.
class FakeViConnector : public vi_connector::VIConnector {
public:
    explicit FakeViConnector(vi_connector::VISessionCallbackIf* session)
        : VIConnector(NoConfiguration{}), session_(session) {}
    void Start() override { session_->VIConnectorStatus(vi_connector::SessionStatus::kOk); }
    vi_connector::SessionStatus GetSessionStatus() const override {
        return vi_connector::SessionStatus::kOk;
    }

private:
    vi_connector::VISessionCallbackIf* session_;
};

class FakeTee : public qervo::tee::ZELKOnlineUpdateAPI {
public:
    static constexpr ClientError kNotReady = ClientError::CLIENT_ERROR_NOT_READY;
    ClientError zelk_handle_dlc(Bytes /*dlc*/) override { return kNotReady; }
    ClientError zelk_get_certificate(std::string /*typeId*/, std::string& /*out*/) override {
        return kNotReady;
    }
    ClientError zelk_get_identity_hash(Bytes& /*out*/, const Bytes& /*challenge*/) override {
        return kNotReady;
    }
    ClientError zelk_get_pss_hash(Bytes& /*out*/) override { return kNotReady; }
    ClientError zelk_get_training_counter(std::uint16_t& /*out*/) override { return kNotReady; }
    ClientError zelk_get_zelk_vin(Bytes& /*out*/) override { return kNotReady; }
    ClientError ecu_get_part_number(std::string& /*out*/) override { return kNotReady; }
    ClientError ecu_get_diagnostic_id(std::string& /*out*/) override { return kNotReady; }
    ClientError ecu_get_tesmo_id_string(std::string& /*out*/) override { return kNotReady; }
};

// True means failure for the MQTT operations.
class FakeMqttConnection : public csa_common::MqttConnectionIf {
public:
    bool Subscribe(const std::string& /*topic*/) override { return true; }
    bool Connect() override { return true; }
    std::uint32_t Disconnect() override { return 0; }
    bool CheckReceivedUpdate() override { return false; }
    std::string GetReceivedMessage() override { return {}; }
    bool Publish(const std::string& /*topic*/, const std::string& /*message*/, bool /*flag*/,
                 unsigned int /*value1*/, unsigned int /*value2*/, std::string /*text*/) override {
        return true;
    }
};

class FakeBackendConnection : public kelvane_client::BackendConnectionIf {
public:
    bool ChallengeRequest(const std::string& /*token*/, const std::string& /*url*/,
                          std::string& /*challenge*/) override {
        return false;
    }
    bool DownloadRequest(const std::string& /*token*/, const kelvane_client::RequestParams&,
                         const std::string& /*url*/, std::string& /*container*/) override {
        return false;
    }
    int SendStatusFeedback(const kelvane_client::RequestParams&, const std::string& /*token*/,
                           const std::string& /*url*/) const override {
        return 1;
    }
};

class FakeClampControlHandler : public csa_common::ClampControlHandlerIf {
public:
    bool ClampControlInit() override { return false; }
    bool Subscribe() override { return false; }
    bool SubscribeNB() override { return false; }
};

class Factory : public kelvane_client::CollaboratorFactory {
public:
    std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter> CreateLifecycleAdapter(
        const std::string& name,
        process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf* callback) const override {
        // An empty configuration: the defaults, without a warning about a missing file.
        return std::make_shared<process_lifecycle_adapter::ProcessLifecycleAdapter>(name, callback,
                                                                                    "/dev/null");
    }
    std::shared_ptr<vi_connector::VIConnector> CreateViConnector(
        vi_connector::VISessionCallbackIf* callback) const override {
        return std::make_shared<FakeViConnector>(callback);
    }
    std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> CreateTee() const override {
        return std::make_shared<FakeTee>();
    }
    std::shared_ptr<csa_common::MqttConnectionIf> CreateMqttConnection(
        std::shared_ptr<vi_connector::VIConnector> /*connector*/,
        csa_common::MqttConnectionCbIf* /*callback*/) const override {
        return std::make_shared<FakeMqttConnection>();
    }
    std::shared_ptr<kelvane_client::BackendConnectionIf> CreateBackendConnection(
        std::shared_ptr<vi_connector::VIConnector> /*connector*/) const override {
        return std::make_shared<FakeBackendConnection>();
    }
    std::shared_ptr<csa_common::ClampControlHandlerIf> CreateClampControlHandler(
        csa_common::ClampControlHandlerCbIf* /*callback*/) const override {
        return std::make_shared<FakeClampControlHandler>();
    }
};

const KelvaneClient* sut = nullptr;

// The lifecycle adapter takes SIGINT and SIGTERM for itself; libFuzzer must
// keep them so that a run can still be interrupted.
void MakeClient() {
    struct sigaction interrupt {};
    struct sigaction terminate {};
    ::sigaction(SIGINT, nullptr, &interrupt);
    ::sigaction(SIGTERM, nullptr, &terminate);
    // Never destroyed: it lives as long as the fuzzing process.
    sut = new KelvaneClient(Factory(), std::make_shared<kelvane_client::Clock>());
    ::sigaction(SIGINT, &interrupt, nullptr);
    ::sigaction(SIGTERM, &terminate, nullptr);
}

int HexValue(char c) {
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower <= '9' ? lower - '0' : lower - 'a' + 10;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::QuietLogging();
    MakeClient();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string challenge(reinterpret_cast<const char*>(data), size);

    const std::vector<std::uint8_t> bytes = sut->ChallengeToByteBufferVector(challenge);

    bool wellFormed = challenge.size() == 32;
    for (const char c : challenge) {
        wellFormed = wellFormed && std::isxdigit(static_cast<unsigned char>(c)) != 0;
    }
    if (!wellFormed) {
        Require(bytes.empty(), "a malformed challenge gives no bytes");
        return 0;
    }
    Require(bytes.size() == 16, "32 hexadecimal characters give 16 bytes");
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int expected = HexValue(challenge[2 * i]) * 16 + HexValue(challenge[2 * i + 1]);
        Require(bytes[i] == expected, "each pair of digits gives one byte, first pair first");
    }
    return 0;
}
