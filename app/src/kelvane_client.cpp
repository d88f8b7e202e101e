#include "app/kelvane_client.hpp"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <utility>

#include "app/x509_validator.hpp"
#include "backend/transaction_types.hpp"
#include "base64_utils/base64_utils.hpp"
#include "csa_common/secure_wipe.hpp"
#include "csc_logging/csc_logging.hpp"

namespace kelvane_client {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;
using qervo::tee::ClientError;
using std::chrono::nanoseconds;

// A subscription is due when it is at most this far ahead.
constexpr nanoseconds kDueWithin{999'999'999};
constexpr std::chrono::seconds kClampSubscribeRetryDelay{10};
constexpr std::chrono::seconds kRefusedMqttSubscriptionDelay{60};
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint32_t kMqttMessagesIgnoredAfterUpdate = 2;
constexpr std::uint32_t kSessionOk = 2;
constexpr std::uint32_t kSessionRejected = 3;
constexpr std::uint32_t kTokenOk = 1;
constexpr std::uint32_t kUrlOk = 0;
constexpr std::size_t kChallengeLength = 32;

// Logs `failureMessage` and throws when the collaborator cannot be made.
template <typename Make>
auto Create(const char* failureMessage, Make make) {
    std::string cause = "no object";
    try {
        if (auto created = make()) {
            return created;
        }
    } catch (const std::exception& e) {
        cause = e.what();
    }
    CSCLogging::Error(failureMessage);
    throw std::runtime_error(std::string(failureMessage) + " (" + cause + ")");
}

std::int64_t SinceEpoch(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<nanoseconds>(time.time_since_epoch()).count();
}

bool IsOk(ClientError error) {
    return error == ClientError::CLIENT_OK;
}

}  // namespace

KelvaneClient::KelvaneClient() : KelvaneClient(CollaboratorFactory(), std::make_shared<Clock>()) {}

KelvaneClient::KelvaneClient(const CollaboratorFactory& factory, std::shared_ptr<Clock> clock)
    : clock_(std::move(clock)) {
    CSCLogging::Info("Kelvane Client Started");
    CSCLogging::Info(std::string("Kelvane Client version: ") + kVersion);

    lifecycleAdapter_ = Create("Cannot create ProcessLifecycleAdapter!", [&] {
        return factory.CreateLifecycleAdapter(kComponentName, this);
    });
    viConnector_ =
        Create("Cannot create VIConnector!", [&] { return factory.CreateViConnector(this); });
    tee_ = Create("Cannot create Tee!", [&] { return factory.CreateTee(); });
    mqttConnection_ = Create("Cannot create MqttConnection!",
                             [&] { return factory.CreateMqttConnection(viConnector_, this); });
    backendConnection_ = Create("Cannot create BackendConnection!",
                                [&] { return factory.CreateBackendConnection(viConnector_); });
    clampControlHandler_ = Create("Cannot create ClampControlHandler!",
                                  [&] { return factory.CreateClampControlHandler(this); });

    ViConnectorInit();
    x509_validator::VersionCheck();
}

KelvaneClient::~KelvaneClient() {
    // The connector is shared and outlives the MQTT connection by a few member
    // releases; once Disconnect returns its thread calls nothing of ours.
    if (mqttConnection_) {
        mqttConnection_->Disconnect();
    }
}

bool KelvaneClient::Init() {
    SubscribeToConnectionState();
    clampControlHandler_->ClampControlInit();
    const bool mqttFailed = MqttInit();
    // The first subscription is made by the loop like every later one, as
    // soon as the connection state allows it.
    RequestMqttSubscription(std::chrono::seconds(0));
    return mqttFailed;
}

void KelvaneClient::Main() {
    CSCLogging::Info("Kelvane Client Ready");
    while (running_) {
        if (terminateRequested_) {
            CSCLogging::Info("Handling Kelvane Client Termination Request");
            break;
        }
        if (viConnectorFailed_) {
            CSCLogging::Info(CSCLogEntry() << "Kelvane client stopped, VIConnector Status="
                                           << viConnectorStatus_.load());
            break;
        }

        if (updateState_ == UpdateState::kPending) {
            if (!CheckConnectionState()) {
                SendStatusFeedBack(HandleDlcUpdate());
                if (updateState_ == UpdateState::kStarted && updateByMqtt_) {
                    mqttIgnoreCount_ = kMqttMessagesIgnoredAfterUpdate;
                }
                updateByMqtt_ = false;
                updateState_ = UpdateState::kIdle;
            } else {
                CSCLogging::Info(CSCLogEntry() << "DLC Update pending! Connection state: "
                                               << connectionState_.load());
            }
        }

        if (clampSubscribePending_ && clampSubscribeRetryAt_ - clock_->Now() <= kDueWithin) {
            clampSubscribePending_ = false;
            CSCLogging::Info("Subscribing to Clamp Control Service");
            if (clampControlHandler_->Subscribe()) {
                clampSubscribed_ = true;
                readyReported_ = false;
            } else {
                clampSubscribeRetryAt_ = clock_->Now() + kClampSubscribeRetryDelay;
                CSCLogging::Info(CSCLogEntry()
                                 << "Retrying after " << kClampSubscribeRetryDelay.count()
                                 << " seconds...");
                clampSubscribePending_ = true;
                clampSubscribed_ = false;
                readyReported_ = false;
            }
        }

        if (mqttSubscribeRequested_ &&
            nanoseconds(mqttResubscribeAt_.load() - SinceEpoch(clock_->Now())) <= kDueWithin) {
            mqttSubscribed_ = false;
            readyReported_ = false;
            if (!CheckConnectionState()) {
                mqttSubscribeRequested_ = false;
                CSCLogging::Info("Handling MQTT subscription request.");
                if (!MqttSubscribe()) {
                    mqttSubscribed_ = true;
                    // A refusal or loss reported while the call was under way
                    // set a new request; it wins over this success whichever
                    // of its two writes comes first.
                    if (mqttSubscribeRequested_) {
                        mqttSubscribed_ = false;
                    }
                    readyReported_ = false;
                }
            } else {
                CSCLogging::Info(CSCLogEntry()
                                 << "MQTT subscribe handling ignored! Connection state: "
                                 << connectionState_.load());
            }
        }

        if (clampStateChanged_) {
            clampStateChanged_ = false;
            HandleClampStateChange();
        }

        if (mqttSubscribed_ && clampSubscribed_ && !readyReported_) {
            CSCLogging::Info("All subscriptions and connections ready");
            readyReported_ = true;
        }

        if (running_) {
            WaitForTrigger(CalculateTimeout());
        }
    }
    running_ = false;
    CSCLogging::Info("Kelvane Client Terminated.");
}

void KelvaneClient::SendTrigger() {
    std::lock_guard<std::mutex> lock(mutex_);
    triggerFlag_ = true;
    triggerCv_.notify_one();
}

void KelvaneClient::WaitForTrigger(int timeoutSeconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<TimePoint> deadline;
    if (timeoutSeconds == kInfiniteTimeout) {
        CSCLogging::Debug("Process timeout set to inf");
    } else {
        CSCLogging::Debug(CSCLogEntry() << "Process timeout set to: " << timeoutSeconds << "s");
        deadline = clock_->Now() + std::chrono::milliseconds(std::int64_t{timeoutSeconds} * 1000);
    }
    clock_->Wait(triggerCv_, lock, deadline, [this] { return triggerFlag_.load(); });
    triggerFlag_ = false;
}

int KelvaneClient::CalculateTimeout() const {
    if (updateState_ == UpdateState::kStarted) {
        return 1;
    }
    const bool connected = !CheckConnectionState();
    if (clampStateChanged_ && connected) {
        return 1;
    }
    if (updateState_ == UpdateState::kPending && connected) {
        return 1;
    }
    const std::int64_t now = SinceEpoch(clock_->Now());
    std::int64_t mqtt = kInfiniteTimeout;
    if (mqttSubscribeRequested_ && connected) {
        mqtt = (mqttResubscribeAt_.load() - now) / kNanosecondsPerSecond + 1;
        if (mqtt < 0) {
            CSCLogging::Warning("MQTT Resubscribe has negative timeout.");
        }
        if (mqtt > kInfiniteTimeout - 1) {
            mqtt = kInfiniteTimeout;
        }
        if (!clampSubscribePending_) {
            return mqtt > 0 ? static_cast<int>(mqtt) : 1;
        }
    } else if (!clampSubscribePending_) {
        return kInfiniteTimeout;
    }
    const std::int64_t clamp =
        (SinceEpoch(clampSubscribeRetryAt_) - now) / kNanosecondsPerSecond + 1;
    if (clamp < 0) {
        CSCLogging::Warning("Clamp Control Subscribe has negative timeout.");
    }
    const std::int64_t smaller = std::min(clamp, mqtt);
    return smaller > 0 ? static_cast<int>(smaller) : 1;
}

std::uint8_t KelvaneClient::Clamp15Check(std::chrono::system_clock::time_point now) const {
    std::string certificate;
    if (!IsOk(tee_->zelk_get_certificate(qervo::tee::ZELK_BASE, certificate))) {
        CSCLogging::Error("Error getting the Base certificate!");
        return 1;
    }
    return x509_validator::IsCertificateValid(certificate, now) ? 0 : 2;
}

void KelvaneClient::HandleClampStateChange() {
    if (Clamp15Check(clock_->Now()) == 2) {
        mqttIgnoreCount_ = 0;
        updateState_ = UpdateState::kPending;
        SendTrigger();
    }
}

void KelvaneClient::MqttFlushMessage() const {
    // Any push message means "update now"; its content carries nothing more.
    static_cast<void>(mqttConnection_->GetReceivedMessage());
}

const char* KelvaneClient::UpdateStateText(UpdateState state) {
    return state == UpdateState::kPending ? "pending" : "started";
}

void KelvaneClient::ClampStateChangeCb(const std::string& clampName, bool state) {
    CSCLogging::Info(CSCLogEntry() << clampName << " has changed state to " << state);
    if (!state) {
        return;
    }
    const UpdateState current = updateState_;
    if (current != UpdateState::kIdle) {
        CSCLogging::Info(std::string("DLC update is already ") + UpdateStateText(current) +
                         ", ignore clamp15");
        return;
    }
    clampStateChanged_ = true;
    SendTrigger();
}

void KelvaneClient::ClampControlConnectionStateChangeCb(bool connected) {
    CSCLogging::Debug(CSCLogEntry()
                      << "Clamp Control Service connection state has changed to " << connected);
    if (!clampServiceConnected_ && connected) {
        clampSubscribePending_ = true;
    }
    if (!connected) {
        clampSubscribed_ = false;
        readyReported_ = false;
    }
    clampServiceConnected_ = connected;
    SendTrigger();
}

void KelvaneClient::ClampSubscribedCb() {
    // The loop learns of the subscription from Subscribe()'s result.
}

void KelvaneClient::MQTTMessageReceivedCb() {
    CSCLogging::Info("MQTT Message was received");
    if (mqttConnection_->CheckReceivedUpdate()) {
        MqttFlushMessage();
    }
    std::uint32_t ignoreCount = mqttIgnoreCount_;
    while (ignoreCount > 0) {
        if (mqttIgnoreCount_.compare_exchange_weak(ignoreCount, ignoreCount - 1)) {
            CSCLogging::Info(CSCLogEntry()
                             << "Update job #"
                             << kMqttMessagesIgnoredAfterUpdate - (ignoreCount - 1) << " Ignored!");
            return;
        }
    }
    const UpdateState current = updateState_;
    if (current == UpdateState::kIdle) {
        updateByMqtt_ = true;
        updateState_ = UpdateState::kPending;
        SendTrigger();
        return;
    }
    CSCLogging::Info(std::string("DLC update is already ") + UpdateStateText(current) +
                     ", ignore MQTT message");
}

void KelvaneClient::RequestMqttSubscription(std::chrono::seconds delay) {
    // The due time is published before the request, so the loop never acts on
    // a request with the previous due time.
    mqttResubscribeAt_ = SinceEpoch(clock_->Now() + delay);
    mqttSubscribeRequested_ = true;
    mqttSubscribed_ = false;
    readyReported_ = false;
}

void KelvaneClient::MQTTResubscribeCb() {
    CSCLogging::Info("MQTT Re-Subscription request was received");
    RequestMqttSubscription(std::chrono::seconds(0));
    SendTrigger();
}

void KelvaneClient::MQTTSubscribeFailedCb() {
    CSCLogging::Info("MQTT Subscribtion failed");
    RequestMqttSubscription(kRefusedMqttSubscriptionDelay);
    SendTrigger();
}

void KelvaneClient::ProcessLifecycleAdapterTerminate() {
    CSCLogging::Debug("Termination signal received");
    terminateRequested_ = true;
    SendTrigger();
}

std::uint8_t KelvaneClient::ProcessLifecycleAdapterGetHealthStatus() {
    CSCLogging::Debug("Get Health Status called.");
    return 0;
}

void KelvaneClient::ViConnectorInit() {
    viConnector_->Start();
    CSCLogging::Info("Waiting for VI-Connector to start");
    WaitForTrigger(kInfiniteTimeout);
    viConnectorStatus_ = static_cast<std::uint32_t>(viConnector_->GetSessionStatus());
    if (viConnectorStatus_ == kSessionOk) {
        CSCLogging::Info("VI-Connector was started successfully.");
    } else {
        CSCLogging::Error("VI-Connector failed to start!");
    }
}

void KelvaneClient::VIConnectorStatus(vi_connector::SessionStatus status) {
    const auto value = static_cast<std::uint32_t>(status);
    if (value == kSessionOk) {
        CSCLogging::Info("VIConnector Status OK");
    } else if (value == kSessionRejected) {
        viConnectorFailed_ = true;
        CSCLogging::Error(CSCLogEntry() << "VIConnector Status Rejected=" << value);
    } else {
        CSCLogging::Error(CSCLogEntry() << "VIConnector Status Failed=" << value);
    }
    viConnectorStatus_ = value;
    SendTrigger();
}

void KelvaneClient::SubscribeToConnectionState() {
    if (viConnector_->SubscribeTransactionTypeState(ConnectionStateTransactionTypeId, this, 0) ==
        0) {
        CSCLogging::Error("Subscribe to connection state failed!");
    }
}

void KelvaneClient::VISCSessionStatus(vi_connector::SCSessionStatus /*status*/) {}

void KelvaneClient::VISCInvocationURL(vi_connector::SCUrlResult /*result*/) {}

void KelvaneClient::VISCConnectionState(SCConnectionStateUpdate update) {
    if (update.transactionTypeId != ConnectionStateTransactionTypeId) {
        return;
    }
    CSCLogging::Debug(CSCLogEntry() << "Connection state notification, new state: "
                                    << static_cast<int>(update.state));
    connectionState_ = update.state;
    SendTrigger();
}

bool KelvaneClient::MqttInit() const {
    const bool failed = mqttConnection_->Connect();
    if (failed) {
        CSCLogging::Error(CSCLogEntry() << "MQTT Connection FAILED! Result: " << failed);
        return true;
    }
    CSCLogging::Info("MQTT Initialized");
    return false;
}

bool KelvaneClient::MqttSubscribe() const {
    if (mqttConnection_->Subscribe(MqttInitiationOperationTypeId)) {
        CSCLogging::Error("MQTT Subscription FAILED!");
        return true;
    }
    CSCLogging::Info("MQTT Subscribed successfully");
    return false;
}

bool KelvaneClient::CheckConnectionState() const {
    const std::uint8_t state = connectionState_;
    return state != 2 && state != 3;
}

std::string KelvaneClient::HandleDlcUpdate() {
    CSCLogging::Info("DLC Update Started");
    std::string token;
    const csa_common::WipeOnExit wipeToken(token);
    std::string url;
    if (!GetTokenAndUrl(ChallengeRequestOperationTypeId, token, url)) {
        return {};
    }
    if (CheckConnectionState()) {
        CSCLogging::Error(CSCLogEntry() << "Challenge request cancelled! Connection state: "
                                        << connectionState_.load());
        return {};
    }
    std::string challenge;
    // Only the challenge text tells whether the exchange worked.
    static_cast<void>(backendConnection_->ChallengeRequest(token, url, challenge));
    csa_common::SecureWipe(token);
    if (challenge.empty()) {
        CSCLogging::Error("Error downloading the challenge!");
        return {};
    }
    CSCLogging::Info("Challenge received successfully");
    updateState_ = UpdateState::kStarted;

    RequestParams params;
    params.tesmoChallenge = challenge;
    if (SetRequestParameters(params) != 0) {
        return challenge;
    }

    std::string downloadToken;
    const csa_common::WipeOnExit wipeDownloadToken(downloadToken);
    std::string downloadUrl;
    if (!GetTokenAndUrl(DownloadRequestOperationTypeId, downloadToken, downloadUrl)) {
        return challenge;
    }
    if (CheckConnectionState()) {
        CSCLogging::Error(CSCLogEntry() << "DLC download request cancelled! Connection state: "
                                        << connectionState_.load());
        return challenge;
    }
    std::string container;
    static_cast<void>(
        backendConnection_->DownloadRequest(downloadToken, params, downloadUrl, container));
    csa_common::SecureWipe(downloadToken);
    if (container.empty()) {
        CSCLogging::Error("Error downloading the container!");
        return challenge;
    }
    CSCLogging::Info("DLC-container received successfully");
    // A container that does not decode goes over as an empty vector; the
    // key-management system rejects it and the feedback reports that.
    const std::vector<std::uint8_t> dlc =
        base64_utils::Base64Utils::Base64DecodeToBinaryVector(container);
    if (!IsOk(tee_->zelk_handle_dlc(dlc))) {
        CSCLogging::Error("Error handling the DLC-container, bad DLC!");
    } else {
        CSCLogging::Info("DLC Update finished successfully.");
    }
    return challenge;
}

void KelvaneClient::SendStatusFeedBack(std::string challenge) {
    CSCLogging::Info("Sending status feedback.");
    RequestParams params;
    params.tesmoChallenge = std::move(challenge);
    SetFeedbackParameters(params);

    std::string token;
    const csa_common::WipeOnExit wipeToken(token);
    std::string url;
    if (!GetTokenAndUrl(StatusFeedbackOperationTypeId, token, url)) {
        return;
    }
    if (CheckConnectionState()) {
        CSCLogging::Error(CSCLogEntry() << "Status feedback sending cancelled! Connection state: "
                                        << connectionState_.load());
        return;
    }
    if (backendConnection_->SendStatusFeedback(params, token, url) != 0) {
        CSCLogging::Error("Error sending status feedback!");
    } else {
        CSCLogging::Info("Status feedback sent successfully");
    }
}

bool KelvaneClient::GetTokenAndUrl(const std::string& operationTypeId, std::string& token,
                                   std::string& url) {
    if (operationTypeId != ChallengeRequestOperationTypeId &&
        operationTypeId != DownloadRequestOperationTypeId &&
        operationTypeId != StatusFeedbackOperationTypeId) {
        CSCLogging::Error("Uknown operation type ID " + operationTypeId);
        return false;
    }
    // The platform's two calls use opposite success values.
    vi_connector::TokenResult tokenResult = viConnector_->GetToken(operationTypeId);
    const csa_common::WipeOnExit wipeResult(tokenResult.token);
    if (tokenResult.status != kTokenOk) {
        CSCLogging::Error(CSCLogEntry() << "Failed to get the Token for '" << operationTypeId
                                        << "', status=" << tokenResult.status);
        return false;
    }
    // The caller wipes `token`; assigning would leave a second buffer.
    csa_common::SecureWipe(token);
    token.swap(tokenResult.token);
    CSCLogging::Info("Got Token for '" + operationTypeId + "'");

    const vi_connector::UrlResult urlResult = viConnector_->GetInvocationUrl(operationTypeId);
    if (urlResult.status != kUrlOk) {
        CSCLogging::Error(CSCLogEntry() << "Failed to get the URL for '" << operationTypeId
                                        << "', status=" << urlResult.status);
        return false;
    }
    url = urlResult.url;
    CSCLogging::Info("Got URL for '" + operationTypeId + "'");
    return true;
}

int KelvaneClient::SetRequestParameters(RequestParams& params) {
    const auto failed = [](const char* operation) {
        CSCLogging::Error(std::string("SetRequestParameters(): ") + operation + " Failed!");
        CSCLogging::Error("SetRequestParameters(): Setting the request parameters Failed!");
        return 1;
    };
    const std::vector<std::uint8_t> challengeBytes =
        ChallengeToByteBufferVector(params.tesmoChallenge);
    if (challengeBytes.empty()) {
        CSCLogging::Error("SetRequestParameters(): Incorrect Tesmo Challenge!");
        CSCLogging::Error("SetRequestParameters(): Setting the request parameters Failed!");
        return 1;
    }
    if (!IsOk(tee_->ecu_get_diagnostic_id(params.diagnosticID))) {
        return failed("ecu_get_diagnostic_id");
    }
    if (!IsOk(tee_->ecu_get_part_number(params.partNumber))) {
        return failed("ecu_get_part_number");
    }
    if (!IsOk(tee_->ecu_get_tesmo_id_string(params.tesmoIdString))) {
        return failed("ecu_get_tesmo_id_string");
    }
    if (!IsOk(tee_->zelk_get_zelk_vin(params.zelkVin))) {
        return failed("zelk_get_zelk_vin");
    }
    if (!IsOk(tee_->zelk_get_training_counter(params.trainingCounter))) {
        return failed("zelk_get_training_counter");
    }
    if (!IsOk(tee_->zelk_get_pss_hash(params.pssHash))) {
        return failed("zelk_get_pss_hash");
    }
    if (!IsOk(tee_->zelk_get_identity_hash(params.identityHash, challengeBytes))) {
        return failed("zelk_get_identity_hash");
    }
    return 0;
}

void KelvaneClient::SetFeedbackParameters(RequestParams& params) {
    const auto check = [](ClientError result, const char* operation) {
        if (!IsOk(result)) {
            CSCLogging::Warning(std::string("SetFeedbackParameters(): ") + operation + " Failed!");
        }
    };
    check(tee_->ecu_get_diagnostic_id(params.diagnosticID), "ecu_get_diagnostic_id");
    check(tee_->ecu_get_part_number(params.partNumber), "ecu_get_part_number");
    check(tee_->ecu_get_tesmo_id_string(params.tesmoIdString), "ecu_get_tesmo_id_string");
    check(tee_->zelk_get_zelk_vin(params.zelkVin), "zelk_get_zelk_vin");
    check(tee_->zelk_get_training_counter(params.trainingCounter), "zelk_get_training_counter");
    check(tee_->zelk_get_pss_hash(params.pssHash), "zelk_get_pss_hash");

    const std::vector<std::uint8_t> challengeBytes =
        ChallengeToByteBufferVector(params.tesmoChallenge);
    if (challengeBytes.empty()) {
        CSCLogging::Warning("SetFeedbackParameters(): Empty challenge, identityHash set to empty!");
        return;
    }
    check(tee_->zelk_get_identity_hash(params.identityHash, challengeBytes),
          "zelk_get_identity_hash");
}

std::vector<std::uint8_t> KelvaneClient::ChallengeToByteBufferVector(
    const std::string& challenge) const {
    static const std::string kWhere = "ChallengeToByteBufferVector";
    if (challenge.size() != kChallengeLength) {
        CSCLogging::Error(CSCLogEntry()
                          << kWhere << " Wrong challenge length: '" << challenge.size() << "'");
        return {};
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(kChallengeLength / 2);
    for (std::size_t i = 0; i < challenge.size(); i += 2) {
        const std::string pair = challenge.substr(i, 2);
        if (std::isxdigit(static_cast<unsigned char>(pair[0])) == 0 ||
            std::isxdigit(static_cast<unsigned char>(pair[1])) == 0) {
            CSCLogging::Error(kWhere + "Challenge parsing failed! Not hexadecimal digit: '" + pair +
                              "'");
            return {};
        }
        try {
            bytes.push_back(static_cast<std::uint8_t>(std::stoi(pair, nullptr, 16) & 0xFF));
        } catch (const std::invalid_argument&) {
            CSCLogging::Error("Challenge parsing failed! Not able to parse: '" + pair + "'");
            return {};
        } catch (const std::exception& e) {
            CSCLogging::Error(kWhere + ": exception:" + e.what());
            return {};
        }
    }
    return bytes;
}

}  // namespace kelvane_client
