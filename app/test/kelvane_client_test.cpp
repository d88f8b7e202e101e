#include "app/kelvane_client.hpp"

#include <botan/auto_rng.h>
#include <botan/ec_group.h>
#include <botan/ecdsa.h>
#include <botan/x509self.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "app/transaction_types.hpp"
#include "csc_logging/log_capture.hpp"
#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane_client {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using qervo::tee::ClientError;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SaveArg;
using ::testing::SetArgReferee;
using TimePoint = std::chrono::system_clock::time_point;
using Bytes = std::vector<std::uint8_t>;

const TimePoint kStart{std::chrono::seconds{1795342502}};  // 2026-11-22T10:15:02Z
constexpr const char* kChallenge = "0A1B2C3D4E5F60718293A4B5C6D7E8F9";
const Bytes kChallengeBytes = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 0x60, 0x71,
                               0x82, 0x93, 0xA4, 0xB5, 0xC6, 0xD7, 0xE8, 0xF9};
constexpr const char* kContainerBase64 = "3q2+7w==";  // DE AD BE EF
constexpr std::chrono::seconds kWaitLimit{5};

// The client's clock, moved by the test. Wait() blocks on the client's own
// condition variable; Advance() and Release() wake it.
class FakeClock : public Clock {
public:
    explicit FakeClock(TimePoint now) : now_(now) {}

    TimePoint Now() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }

    void Wait(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
              std::optional<TimePoint> deadline, const std::function<bool()>& wake) override {
        while (true) {
            const bool done = wake() || (deadline && Now() >= *deadline);
            {
                std::lock_guard<std::mutex> own(mutex_);
                waitingCv_ = &cv;
                waitingMutex_ = lock.mutex();
                if (done && !hold_) {
                    break;
                }
                ++blocks_;
                blocked_ = true;
                changed_.notify_all();
            }
            cv.wait(lock);
            std::lock_guard<std::mutex> own(mutex_);
            blocked_ = false;
        }
    }

    void Advance(std::chrono::nanoseconds step) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            now_ += step;
        }
        WakeWaiter();
    }
    /// While held, the waiter does not return even when woken.
    void Hold() {
        std::lock_guard<std::mutex> lock(mutex_);
        hold_ = true;
    }
    void Release() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            hold_ = false;
        }
        WakeWaiter();
    }
    int Blocks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_;
    }
    /// True once the waiter has blocked more than `blocks` times and blocks now:
    /// it has finished everything it was woken for.
    bool AwaitBlockedAfter(int blocks) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kWaitLimit, [&] { return blocked_ && blocks_ > blocks; });
    }

private:
    void WakeWaiter() {
        std::condition_variable* cv = nullptr;
        std::mutex* waitMutex = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            cv = waitingCv_;
            waitMutex = waitingMutex_;
        }
        if (cv != nullptr) {
            std::lock_guard<std::mutex> lock(*waitMutex);
            cv->notify_all();
        }
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    TimePoint now_;
    bool hold_ = false;
    bool blocked_ = false;
    int blocks_ = 0;
    std::condition_variable* waitingCv_ = nullptr;
    std::mutex* waitingMutex_ = nullptr;
};

class FakeViConnector : public vi_connector::VIConnector {
public:
    explicit FakeViConnector(vi_connector::VISessionCallbackIf* session)
        : VIConnector(NoConfiguration{}), session_(session) {}

    // Like the real one, every Start() is reported once.
    void Start() override { session_->VIConnectorStatus(startStatus); }
    vi_connector::SessionStatus GetSessionStatus() const override { return startStatus; }

    vi_connector::TokenResult GetToken(const std::string& id) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (id == failingToken) {
            return {0, {}};
        }
        return {1, "token-" + id};
    }
    vi_connector::UrlResult GetInvocationUrl(const std::string& id) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (id == failingUrl) {
            return {failingUrlStatus, {}};
        }
        return {0, "http://backend/" + id};
    }
    unsigned int SubscribeTransactionTypeState(
        std::string id, vi_connector::VIServiceControllerCallbackIf* callback,
        unsigned int /*flags*/) override {
        if (stateSubscriptionResult == 0) {
            return 0;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stateCallback_ = callback;
            subscribedId = id;
        }
        callback->VISCConnectionState({id, initialState});
        return stateSubscriptionResult;
    }

    void SetConnectionState(std::uint8_t state,
                            const std::string& id = ConnectionStateTransactionTypeId) {
        vi_connector::VIServiceControllerCallbackIf* callback = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            callback = stateCallback_;
        }
        callback->VISCConnectionState({id, state});
    }
    void ReportStatus(vi_connector::SessionStatus status) { session_->VIConnectorStatus(status); }

    vi_connector::SessionStatus startStatus = vi_connector::SessionStatus::kOk;
    std::uint8_t initialState = 2;
    std::string failingToken;
    std::string failingUrl;
    std::uint32_t failingUrlStatus = 7;
    unsigned int stateSubscriptionResult = 1;
    std::string subscribedId;

private:
    vi_connector::VISessionCallbackIf* session_;
    std::mutex mutex_;
    vi_connector::VIServiceControllerCallbackIf* stateCallback_ = nullptr;
};

class MockZelkOnlineUpdateApi : public qervo::tee::ZELKOnlineUpdateAPI {
public:
    MOCK_METHOD(ClientError, zelk_handle_dlc, (Bytes dlc), (override));
    MOCK_METHOD(ClientError, zelk_get_certificate, (std::string typeId, std::string& certificate),
                (override));
    MOCK_METHOD(ClientError, zelk_get_identity_hash, (Bytes & identityHash, const Bytes& challenge),
                (override));
    MOCK_METHOD(ClientError, zelk_get_pss_hash, (Bytes & pssHash), (override));
    MOCK_METHOD(ClientError, zelk_get_training_counter, (std::uint16_t & trainingCounter),
                (override));
    MOCK_METHOD(ClientError, zelk_get_zelk_vin, (Bytes & vin), (override));
    MOCK_METHOD(ClientError, ecu_get_part_number, (std::string & partNumber), (override));
    MOCK_METHOD(ClientError, ecu_get_diagnostic_id, (std::string & diagnosticId), (override));
    MOCK_METHOD(ClientError, ecu_get_tesmo_id_string, (std::string & tesmoIdString), (override));
};

class MockBackendConnection : public BackendConnectionIf {
public:
    MOCK_METHOD(bool, ChallengeRequest,
                (const std::string& token, const std::string& url, std::string& challenge),
                (override));
    MOCK_METHOD(bool, DownloadRequest,
                (const std::string& token, const RequestParams& params, const std::string& url,
                 std::string& container),
                (override));
    MOCK_METHOD(int, SendStatusFeedback,
                (const RequestParams& params, const std::string& token, const std::string& url),
                (const, override));
};

class MockMqttConnection : public csa_common::MqttConnectionIf {
public:
    MOCK_METHOD(bool, Subscribe, (const std::string& topic), (override));
    MOCK_METHOD(bool, Connect, (), (override));
    MOCK_METHOD(std::uint32_t, Disconnect, (), (override));
    MOCK_METHOD(bool, CheckReceivedUpdate, (), (override));
    MOCK_METHOD(std::string, GetReceivedMessage, (), (override));
    MOCK_METHOD(bool, Publish,
                (const std::string& topic, const std::string& message, bool flag,
                 unsigned int value1, unsigned int value2, std::string text),
                (override));
};

class MockClampControlHandler : public csa_common::ClampControlHandlerIf {
public:
    MOCK_METHOD(bool, ClampControlInit, (), (override));
    MOCK_METHOD(bool, Subscribe, (), (override));
    MOCK_METHOD(bool, SubscribeNB, (), (override));
};

std::string MakeCertificate(TimePoint notAfter) {
    static Botan::AutoSeeded_RNG rng;
    static const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("Base certificate/DE/Kelvane/Test");
    options.start = Botan::X509_Time(kStart - 24h);
    options.end = Botan::X509_Time(notAfter);
    const auto der =
        Botan::X509::create_self_signed_cert(options, key, "SHA-256", rng).BER_encode();
    return std::string(der.begin(), der.end());
}

class KelvaneClientTest : public ::testing::Test {
protected:
    // Hands out the test's fakes; the lifecycle adapter is the real one, kept quiet.
    class Factory : public CollaboratorFactory {
    public:
        explicit Factory(KelvaneClientTest& test) : test_(test) {}
        std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter> CreateLifecycleAdapter(
            const std::string& name,
            process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf* callback) const override {
            return std::make_shared<process_lifecycle_adapter::ProcessLifecycleAdapter>(
                name, callback, test_.phmConfig_);
        }
        std::shared_ptr<vi_connector::VIConnector> CreateViConnector(
            vi_connector::VISessionCallbackIf* callback) const override {
            test_.vi = std::make_shared<FakeViConnector>(callback);
            test_.vi->startStatus = test_.startStatus;
            test_.vi->initialState = test_.initialState;
            test_.vi->stateSubscriptionResult = test_.stateSubscriptionResult;
            return test_.failing == "vi" ? nullptr : test_.vi;
        }
        std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> CreateTee() const override {
            if (test_.failing == "tee") {
                throw std::runtime_error("no bus");
            }
            return test_.tee;
        }
        std::shared_ptr<csa_common::MqttConnectionIf> CreateMqttConnection(
            std::shared_ptr<vi_connector::VIConnector> /*connector*/,
            csa_common::MqttConnectionCbIf* /*callback*/) const override {
            return test_.failing == "mqtt" ? nullptr : test_.mqtt;
        }
        std::shared_ptr<BackendConnectionIf> CreateBackendConnection(
            std::shared_ptr<vi_connector::VIConnector> /*connector*/) const override {
            return test_.failing == "backend" ? nullptr : test_.backend;
        }
        std::shared_ptr<csa_common::ClampControlHandlerIf> CreateClampControlHandler(
            csa_common::ClampControlHandlerCbIf* /*callback*/) const override {
            return test_.failing == "clamp" ? nullptr : test_.clamp;
        }

    private:
        KelvaneClientTest& test_;
    };

    void SetUp() override {
        phmConfig_ = directory_.Write("phm.ini", "[supervision]\nkeep_alive_period_ms=3600000\n");
        ON_CALL(*tee, zelk_get_certificate(_, _))
            .WillByDefault(DoAll(SetArgReferee<1>(MakeCertificate(kStart + 100 * 24h)),
                                 Return(ClientError{})));
        ON_CALL(*tee, ecu_get_diagnostic_id(_))
            .WillByDefault(DoAll(SetArgReferee<0>("DIAG-1"), Return(ClientError{})));
        ON_CALL(*tee, ecu_get_part_number(_))
            .WillByDefault(DoAll(SetArgReferee<0>("V04007000TB"), Return(ClientError{})));
        ON_CALL(*tee, ecu_get_tesmo_id_string(_))
            .WillByDefault(DoAll(SetArgReferee<0>("TESMO-ID"), Return(ClientError{})));
        ON_CALL(*tee, zelk_get_zelk_vin(_))
            .WillByDefault(DoAll(SetArgReferee<0>(Bytes{'V', 'I', 'N'}), Return(ClientError{})));
        ON_CALL(*tee, zelk_get_training_counter(_))
            .WillByDefault(DoAll(SetArgReferee<0>(std::uint16_t{42}), Return(ClientError{})));
        ON_CALL(*tee, zelk_get_pss_hash(_))
            .WillByDefault(DoAll(SetArgReferee<0>(Bytes{0x55}), Return(ClientError{})));
        ON_CALL(*tee, zelk_get_identity_hash(_, _))
            .WillByDefault(Invoke([](Bytes& hash, const Bytes& challenge) {
                hash = challenge;  // tells which challenge bytes it was computed over
                hash.push_back(0x1D);
                return ClientError{};
            }));
        ON_CALL(*backend, ChallengeRequest(_, _, _))
            .WillByDefault(DoAll(SetArgReferee<2>(kChallenge), Return(true)));
        ON_CALL(*backend, DownloadRequest(_, _, _, _))
            .WillByDefault(DoAll(SetArgReferee<3>(kContainerBase64), Return(true)));
        ON_CALL(*clamp, Subscribe()).WillByDefault(Return(true));
        ON_CALL(*clamp, ClampControlInit()).WillByDefault(Return(true));
    }

    void TearDown() override {
        if (loop_.joinable()) {
            sut->ProcessLifecycleAdapterTerminate();
            loop_.join();
        }
    }

    void ConstructOnly() { sut = std::make_unique<KelvaneClient>(Factory(*this), clock); }
    void Construct() {
        ConstructOnly();
        sut->Init();
    }

    /// Constructs, initialises and runs the loop on a thread of its own, and
    /// returns when the loop waits with nothing left to do.
    void StartLoop() {
        Construct();
        const int blocks = clock->Blocks();
        loop_ = std::thread([this] { sut->Main(); });
        ASSERT_TRUE(clock->AwaitBlockedAfter(blocks));
    }

    /// Runs `action` and returns once the loop has handled what it caused.
    void AndLoopSettles(const std::function<void()>& action) {
        const int blocks = clock->Blocks();
        action();
        ASSERT_TRUE(clock->AwaitBlockedAfter(blocks)) << "the loop did not settle";
    }

    void StopLoop() {
        sut->ProcessLifecycleAdapterTerminate();
        loop_.join();
    }

    void RunUpdate() { sut->SendStatusFeedBack(sut->HandleDlcUpdate()); }

    LogCapture log;
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>(kStart);
    std::shared_ptr<FakeViConnector> vi;
    std::shared_ptr<NiceMock<MockZelkOnlineUpdateApi>> tee =
        std::make_shared<NiceMock<MockZelkOnlineUpdateApi>>();
    std::shared_ptr<NiceMock<MockMqttConnection>> mqtt =
        std::make_shared<NiceMock<MockMqttConnection>>();
    std::shared_ptr<NiceMock<MockBackendConnection>> backend =
        std::make_shared<NiceMock<MockBackendConnection>>();
    std::shared_ptr<NiceMock<MockClampControlHandler>> clamp =
        std::make_shared<NiceMock<MockClampControlHandler>>();
    vi_connector::SessionStatus startStatus = vi_connector::SessionStatus::kOk;
    std::uint8_t initialState = 2;
    unsigned int stateSubscriptionResult = 1;
    std::string failing;
    std::unique_ptr<KelvaneClient> sut;

private:
    kelvane::testing::TemporaryDirectory directory_;
    std::string phmConfig_;
    std::thread loop_;
};

// ---- start-up and shutdown ----

TEST_F(KelvaneClientTest, StartsTheConnectorBeforeInitAndSubscribesInOrder) {
    ::testing::InSequence sequence;
    EXPECT_CALL(*clamp, ClampControlInit()).WillOnce(Invoke([&] {
        EXPECT_EQ(vi->subscribedId, "TTVI-Kelvane-C003") << "connection state comes first";
        return true;
    }));
    EXPECT_CALL(*mqtt, Connect()).WillOnce(Return(true));

    ConstructOnly();
    const bool mqttFailed = sut->Init();

    EXPECT_TRUE(mqttFailed);
    EXPECT_EQ(vi->subscribedId, "TTVI-Kelvane-C003");
    const std::vector<std::string> order = {"Kelvane Client Started",
                                            "Kelvane Client version: 2.2.5-support-0.0.9",
                                            "Waiting for VI-Connector to start",
                                            "VI-Connector was started successfully.",
                                            "Botan Version ",
                                            "MQTT Connection FAILED! Result: 1"};
    long at = 0;
    for (const auto& line : order) {
        const long found = log.IndexOf(line, static_cast<std::size_t>(at));
        EXPECT_GE(found, at) << line;
        at = found;
    }
}

TEST_F(KelvaneClientTest, DestructionEndsMqttDeliveryBeforeReleasingCollaborators) {
    Construct();
    long clampHolders = 0;
    EXPECT_CALL(*mqtt, Disconnect()).WillOnce(Invoke([&] {
        clampHolders = clamp.use_count();
        return 0U;
    }));

    sut.reset();

    EXPECT_EQ(clampHolders, 2);  // the test's share and the client's
}

TEST_F(KelvaneClientTest, CollaboratorThatCannotBeCreatedIsNamedAndStopsConstruction) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"vi", "Cannot create VIConnector!"},
        {"tee", "Cannot create Tee!"},
        {"mqtt", "Cannot create MqttConnection!"},
        {"backend", "Cannot create BackendConnection!"},
        {"clamp", "Cannot create ClampControlHandler!"}};
    for (const auto& [collaborator, message] : cases) {
        log.Clear();
        failing = collaborator;

        EXPECT_THROW(ConstructOnly(), std::runtime_error) << collaborator;

        EXPECT_EQ(log.Count(LogLevel::kError, message), 1U) << collaborator;
        EXPECT_FALSE(log.Contains("Waiting for VI-Connector to start")) << collaborator;
    }
}

TEST_F(KelvaneClientTest, RejectedSessionEndsTheLoopAtOnce) {
    startStatus = vi_connector::SessionStatus::kRejected;
    Construct();

    sut->Main();

    EXPECT_TRUE(log.Contains(LogLevel::kError, "VI-Connector failed to start!"));
    EXPECT_TRUE(log.Contains(LogLevel::kError, "VIConnector Status Rejected=3"));
    EXPECT_LT(log.IndexOf("Kelvane client stopped, VIConnector Status=3"),
              log.IndexOf("Kelvane Client Terminated."));
    EXPECT_EQ(log.Count("Process timeout set to"), 1U);  // the start-up wait only
}

TEST_F(KelvaneClientTest, FailedSessionStatusFiveIsOnlyLogged) {
    StartLoop();

    AndLoopSettles([&] { vi->ReportStatus(static_cast<vi_connector::SessionStatus>(5)); });

    EXPECT_TRUE(log.Contains(LogLevel::kError, "VIConnector Status Failed=5"));
    EXPECT_FALSE(log.Contains("Kelvane Client Terminated."));
    StopLoop();
    EXPECT_EQ(log.Count("Handling Kelvane Client Termination Request"), 1U);
}

TEST_F(KelvaneClientTest, TerminationDuringAWaitEndsTheLoopBeforeAPendingUpdateStarts) {
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _)).Times(0);
    StartLoop();
    clock->Hold();

    sut->MQTTMessageReceivedCb();
    sut->ProcessLifecycleAdapterTerminate();
    clock->Release();
    StopLoop();

    EXPECT_FALSE(log.Contains("DLC Update Started"));
    EXPECT_LT(log.IndexOf("Handling Kelvane Client Termination Request"),
              log.IndexOf("Kelvane Client Terminated."));
}

// ---- triggers and the loop ----

TEST_F(KelvaneClientTest, PendingUpdateWaitsForTheConnectionAndLogsOncePerPass) {
    initialState = 1;
    StartLoop();

    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });
    AndLoopSettles([&] { sut->SendTrigger(); });
    AndLoopSettles([&] { vi->SetConnectionState(4); });

    EXPECT_EQ(log.Count(LogLevel::kInfo, "DLC Update pending! Connection state: 1"), 2U);
    EXPECT_EQ(log.Count(LogLevel::kInfo, "DLC Update pending! Connection state: 4"), 1U);
    EXPECT_EQ(sut->GetUpdateState(), UpdateState::kPending);
    EXPECT_TRUE(log.Contains("Process timeout set to inf"));

    AndLoopSettles([&] { vi->SetConnectionState(3); });

    EXPECT_EQ(log.Count("DLC Update finished successfully."), 1U);
    EXPECT_EQ(sut->GetUpdateState(), UpdateState::kIdle);
}

TEST_F(KelvaneClientTest, FailedClampSubscriptionIsRetriedAfter10sAndReadyIsLoggedAfterEach) {
    EXPECT_CALL(*clamp, Subscribe()).WillOnce(Return(false)).WillRepeatedly(Return(true));
    StartLoop();
    ASSERT_EQ(log.Count("MQTT Subscribed successfully"), 1U);

    AndLoopSettles([&] { sut->ClampControlConnectionStateChangeCb(true); });

    EXPECT_EQ(log.Count("Subscribing to Clamp Control Service"), 1U);
    EXPECT_TRUE(log.Contains("Retrying after 10 seconds..."));
    EXPECT_TRUE(log.Contains("Process timeout set to: 11s"));
    EXPECT_FALSE(log.Contains("All subscriptions and connections ready"));

    AndLoopSettles([&] {
        clock->Advance(9s);
        sut->SendTrigger();
    });
    EXPECT_EQ(log.Count("Subscribing to Clamp Control Service"), 1U);
    AndLoopSettles([&] { clock->Advance(2s); });  // the time-out runs out

    EXPECT_EQ(log.Count("Subscribing to Clamp Control Service"), 2U);
    EXPECT_EQ(log.Count("All subscriptions and connections ready"), 1U);

    AndLoopSettles([&] { sut->ClampControlConnectionStateChangeCb(false); });
    AndLoopSettles([&] { sut->ClampControlConnectionStateChangeCb(true); });

    EXPECT_EQ(log.Count("Subscribing to Clamp Control Service"), 3U);
    EXPECT_EQ(log.Count("All subscriptions and connections ready"), 2U);
    EXPECT_EQ(
        log.Count(LogLevel::kDebug, "Clamp Control Service connection state has changed to 0"), 1U);
}

TEST_F(KelvaneClientTest, RefusedMqttSubscriptionWaitsAMinuteAndALostOneIsRenewedAtOnce) {
    EXPECT_CALL(*mqtt, Subscribe(MqttInitiationOperationTypeId)).Times(3);
    StartLoop();

    AndLoopSettles([&] { sut->MQTTSubscribeFailedCb(); });
    EXPECT_TRUE(log.Contains("MQTT Subscribtion failed"));
    EXPECT_TRUE(log.Contains("Process timeout set to: 61s"));
    AndLoopSettles([&] {
        clock->Advance(59s);
        sut->SendTrigger();
    });
    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 1U);
    AndLoopSettles([&] {
        clock->Advance(500ms);
        sut->SendTrigger();
    });
    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 2U);

    AndLoopSettles([&] { sut->MQTTResubscribeCb(); });

    EXPECT_TRUE(log.Contains("MQTT Re-Subscription request was received"));
    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 3U);
}

TEST_F(KelvaneClientTest, RefusalBeforeTheSubscribeCallReturnsLeavesTheClientUnsubscribed) {
    EXPECT_CALL(*mqtt, Subscribe(MqttInitiationOperationTypeId))
        .WillOnce(Invoke([&](const std::string&) {
            sut->MQTTSubscribeFailedCb();
            return false;
        }))
        .WillOnce(Return(false));
    StartLoop();
    AndLoopSettles([&] { sut->ClampControlConnectionStateChangeCb(true); });

    EXPECT_EQ(log.Count("MQTT Subscribed successfully"), 1U);
    EXPECT_FALSE(log.Contains("All subscriptions and connections ready"));
    EXPECT_TRUE(log.Contains("Process timeout set to: 61s"));

    AndLoopSettles([&] { clock->Advance(61s); });

    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 2U);
    EXPECT_EQ(log.Count("All subscriptions and connections ready"), 1U);
}

TEST_F(KelvaneClientTest, MqttSubscriptionIsKeptWhileTheConnectionIsDown) {
    initialState = 1;
    EXPECT_CALL(*mqtt, Subscribe(_)).Times(1);
    StartLoop();
    ASSERT_TRUE(log.Contains("MQTT subscribe handling ignored! Connection state: 1"));

    AndLoopSettles([&] { vi->SetConnectionState(4); });
    EXPECT_EQ(log.Count("MQTT subscribe handling ignored! Connection state: 4"), 1U);
    AndLoopSettles([&] { vi->SetConnectionState(2); });
    const auto notifications = log.Count("Connection state notification");
    vi->SetConnectionState(1, "TTVI-Kelvane-C003.other");

    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 1U);
    EXPECT_EQ(log.Count("Connection state notification"), notifications);
    EXPECT_FALSE(sut->CheckConnectionState());
}

TEST_F(KelvaneClientTest, ClampOnChecksTheCertificateAndOnlyAnExpiringOneStartsAnUpdate) {
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _)).Times(1);
    EXPECT_CALL(*tee, zelk_get_certificate("BASE", _))
        .WillOnce(
            DoAll(SetArgReferee<1>(MakeCertificate(kStart + 400 * 24h)), Return(ClientError{})))
        .WillOnce(Return(ClientError::CLIENT_ERROR_NOT_READY))
        .WillOnce(
            DoAll(SetArgReferee<1>(MakeCertificate(kStart + 364 * 24h)), Return(ClientError{})));
    StartLoop();

    sut->ClampStateChangeCb("Clamp15", false);
    AndLoopSettles([&] { sut->ClampStateChangeCb("Clamp15", true); });
    AndLoopSettles([&] { sut->ClampStateChangeCb("Clamp15", true); });
    AndLoopSettles([&] { sut->ClampStateChangeCb("Clamp15", true); });

    EXPECT_EQ(log.Count("Clamp15 has changed state to 0"), 1U);
    EXPECT_EQ(log.Count("Clamp15 has changed state to 1"), 3U);
    EXPECT_EQ(log.Count(LogLevel::kError, "Error getting the Base certificate!"), 1U);
    EXPECT_EQ(log.Count("DLC Update Started"), 1U);
    EXPECT_LT(log.IndexOf("The Base Certificate expires in less than one year"),
              log.IndexOf("DLC Update Started"));
}

TEST_F(KelvaneClientTest, ClampOnAndMqttPushDuringAnUpdateAreIgnored) {
    EXPECT_CALL(*tee, zelk_get_certificate(_, _)).Times(0);
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _))
        .WillOnce(Invoke([&](const std::string&, const std::string&, std::string& challenge) {
            sut->ClampStateChangeCb("Clamp15", true);
            sut->MQTTMessageReceivedCb();
            challenge = kChallenge;
            return true;
        }));
    EXPECT_CALL(*backend, DownloadRequest(_, _, _, _))
        .WillOnce(Invoke([&](const std::string&, const RequestParams&, const std::string&,
                             std::string& container) {
            sut->ClampStateChangeCb("Clamp15", true);
            sut->MQTTMessageReceivedCb();
            container = kContainerBase64;
            return true;
        }));
    StartLoop();

    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });

    EXPECT_EQ(log.Count("DLC update is already pending, ignore clamp15"), 1U);
    EXPECT_EQ(log.Count("DLC update is already started, ignore clamp15"), 1U);
    EXPECT_EQ(log.Count("DLC update is already pending, ignore MQTT message"), 1U);
    EXPECT_EQ(log.Count("DLC update is already started, ignore MQTT message"), 1U);
    EXPECT_EQ(log.Count("DLC Update Started"), 1U);
}

TEST_F(KelvaneClientTest, TwoMqttMessagesAfterAnMqttUpdateAreIgnoredAndTheThirdStartsOne) {
    EXPECT_CALL(*mqtt, CheckReceivedUpdate()).WillRepeatedly(Return(true));
    EXPECT_CALL(*mqtt, GetReceivedMessage()).Times(4).WillRepeatedly(Return("push"));
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _)).Times(2);
    StartLoop();

    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });
    sut->MQTTMessageReceivedCb();
    sut->MQTTMessageReceivedCb();
    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });

    EXPECT_EQ(log.Count("MQTT Message was received"), 4U);
    EXPECT_EQ(log.Count("Update job #1 Ignored!"), 1U);
    EXPECT_EQ(log.Count("Update job #2 Ignored!"), 1U);
    EXPECT_LT(log.IndexOf("Update job #2 Ignored!"),
              log.IndexOf("DLC Update Started",
                          static_cast<std::size_t>(log.IndexOf("Update job #1 Ignored!"))));
    EXPECT_EQ(log.Count("DLC Update Started"), 2U);
}

TEST_F(KelvaneClientTest, OnlyAnMqttUpdateThatGotAChallengeArmsTheIgnoreCounterAndClampClearsIt) {
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _))
        .Times(4)
        .WillOnce(Return(false))
        .WillRepeatedly(DoAll(SetArgReferee<2>(kChallenge), Return(true)));
    StartLoop();

    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });  // gets no challenge
    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });
    AndLoopSettles([&] { sut->ClampStateChangeCb("Clamp15", true); });  // expiring certificate
    AndLoopSettles([&] { sut->MQTTMessageReceivedCb(); });

    EXPECT_FALSE(log.Contains("Ignored!"));
    EXPECT_EQ(log.Count(LogLevel::kError, "Error downloading the challenge!"), 1U);
}

// ---- time-outs ----

TEST_F(KelvaneClientTest, TimeoutFollowsWhatIsDue) {
    ConstructOnly();
    sut->SubscribeToConnectionState();
    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);
    sut->SendTrigger();
    sut->WaitForTrigger(sut->CalculateTimeout());
    EXPECT_TRUE(log.Contains(LogLevel::kDebug, "Process timeout set to inf"));

    sut->MQTTSubscribeFailedCb();  // due at start + 60 s
    EXPECT_EQ(sut->CalculateTimeout(), 61);
    clock->Advance(59600ms);
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    clock->Advance(400ms + 5s);
    EXPECT_FALSE(log.Contains("MQTT Resubscribe has negative timeout."));
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    EXPECT_TRUE(log.Contains(LogLevel::kWarning, "MQTT Resubscribe has negative timeout."));
    vi->SetConnectionState(1);
    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);

    sut->ClampControlConnectionStateChangeCb(true);  // retry time never set: long past
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    EXPECT_TRUE(log.Contains(LogLevel::kWarning, "Clamp Control Subscribe has negative timeout."));
}

TEST_F(KelvaneClientTest, TimeoutIsTheEarlierOfMqttAndClampRetryAndALargeOneIsCapped) {
    EXPECT_CALL(*clamp, Subscribe()).WillRepeatedly(Return(false));
    StartLoop();
    AndLoopSettles([&] { sut->ClampControlConnectionStateChangeCb(true); });  // retry in 10 s

    AndLoopSettles([&] { sut->MQTTSubscribeFailedCb(); });  // due in 60 s
    EXPECT_EQ(sut->CalculateTimeout(), 11);
    AndLoopSettles([&] { sut->MQTTResubscribeCb(); });  // due now: handled at once
    AndLoopSettles([&] { sut->MQTTSubscribeFailedCb(); });
    clock->Advance(-200'000s);  // both far ahead now; the MQTT part is capped

    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);
}

TEST_F(KelvaneClientTest, FailedSubscriptionsAreLoggedAndNotRetriedUntilANewRequest) {
    EXPECT_CALL(*mqtt, Subscribe(_)).WillOnce(Return(true)).WillOnce(Return(false));
    StartLoop();
    EXPECT_EQ(log.Count(LogLevel::kError, "MQTT Subscription FAILED!"), 1U);

    AndLoopSettles([&] {
        clock->Advance(1h);
        sut->SendTrigger();
    });
    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 1U);
    AndLoopSettles([&] { sut->MQTTResubscribeCb(); });

    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 2U);
    EXPECT_EQ(log.Count("MQTT Subscribed successfully"), 1U);
}

TEST_F(KelvaneClientTest, RefusedConnectionStateSubscriptionIsLoggedOnceAndNotRetried) {
    stateSubscriptionResult = 0;
    StartLoop();

    AndLoopSettles([&] {
        clock->Advance(1h);
        sut->SendTrigger();
    });

    EXPECT_EQ(log.Count(LogLevel::kError, "Subscribe to connection state failed!"), 1U);
    EXPECT_TRUE(log.Contains("MQTT subscribe handling ignored! Connection state: 0"));
}

// ---- the update procedure ----

TEST_F(KelvaneClientTest, SuccessfulUpdateHandsTheDecodedContainerOverAndReportsIt) {
    RequestParams downloadParams;
    RequestParams feedbackParams;
    EXPECT_CALL(*backend, ChallengeRequest("token-" + ChallengeRequestOperationTypeId,
                                           "http://backend/" + ChallengeRequestOperationTypeId, _));
    EXPECT_CALL(*backend, DownloadRequest("token-" + DownloadRequestOperationTypeId, _,
                                          "http://backend/" + DownloadRequestOperationTypeId, _))
        .WillOnce(
            DoAll(SaveArg<1>(&downloadParams), SetArgReferee<3>(kContainerBase64), Return(true)));
    EXPECT_CALL(*tee, zelk_handle_dlc(Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_CALL(*backend, SendStatusFeedback(_, "token-" + StatusFeedbackOperationTypeId,
                                             "http://backend/" + StatusFeedbackOperationTypeId))
        .WillOnce(DoAll(SaveArg<0>(&feedbackParams), Return(0)));
    Construct();

    const std::string challenge = sut->HandleDlcUpdate();
    EXPECT_EQ(sut->GetUpdateState(), UpdateState::kStarted);
    sut->SendStatusFeedBack(challenge);

    EXPECT_EQ(challenge, kChallenge);
    EXPECT_EQ(sut->ChallengeToByteBufferVector("0a1b2c3d4e5f60718293a4b5c6d7e8f9"),
              kChallengeBytes);
    Bytes expectedHash = kChallengeBytes;
    expectedHash.push_back(0x1D);
    for (const RequestParams* params : {&downloadParams, &feedbackParams}) {
        EXPECT_EQ(params->tesmoChallenge, kChallenge);
        EXPECT_EQ(params->diagnosticID, "DIAG-1");
        EXPECT_EQ(params->partNumber, "V04007000TB");
        EXPECT_EQ(params->tesmoIdString, "TESMO-ID");
        EXPECT_EQ(params->zelkVin, (Bytes{'V', 'I', 'N'}));
        EXPECT_EQ(params->trainingCounter, 42);
        EXPECT_EQ(params->pssHash, Bytes{0x55});
        EXPECT_EQ(params->identityHash, expectedHash);
    }
    EXPECT_LT(log.IndexOf("DLC Update finished successfully."),
              log.IndexOf("Status feedback sent successfully"));
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U) << log.Dump();
}

TEST_F(KelvaneClientTest, TokenFailureForTheChallengeStillSendsFeedbackWithoutChallenge) {
    RequestParams feedback;
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _)).Times(0);
    EXPECT_CALL(*tee, zelk_get_identity_hash(_, _)).Times(0);
    EXPECT_CALL(*backend, SendStatusFeedback(_, _, _))
        .WillOnce(DoAll(SaveArg<0>(&feedback), Return(0)));
    Construct();
    vi->failingToken = ChallengeRequestOperationTypeId;

    RunUpdate();

    EXPECT_TRUE(log.Contains(LogLevel::kError,
                             "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcChallenge', "
                             "status=0"));
    EXPECT_LT(log.IndexOf("ChallengeToByteBufferVector Wrong challenge length: '0'"),
              log.IndexOf("SetFeedbackParameters(): Empty challenge, identityHash set to empty!"));
    EXPECT_EQ(feedback.tesmoChallenge, "");
    EXPECT_TRUE(feedback.identityHash.empty());
    EXPECT_EQ(feedback.diagnosticID, "DIAG-1");
    EXPECT_EQ(sut->GetUpdateState(), UpdateState::kIdle);
}

TEST_F(KelvaneClientTest, UrlFailureForTheDownloadSkipsItButTheFeedbackGoesOut) {
    // Token status 1 and URL status 0 mean success: a URL status of 1 fails.
    for (const std::uint32_t status : {1U, 7U}) {
        log.Clear();
        EXPECT_CALL(*backend, DownloadRequest(_, _, _, _)).Times(0);
        EXPECT_CALL(*backend, SendStatusFeedback(_, _, _)).WillOnce(Return(0));
        Construct();
        vi->failingUrl = DownloadRequestOperationTypeId;
        vi->failingUrlStatus = status;

        RunUpdate();

        EXPECT_TRUE(log.Contains("Got Token for 'TTVI-Kelvane-C003.COzelkDlcDownload'"));
        EXPECT_TRUE(log.Contains(LogLevel::kError,
                                 "Failed to get the URL for 'TTVI-Kelvane-C003.COzelkDlcDownload', "
                                 "status=" +
                                     std::to_string(status)));
        ::testing::Mock::VerifyAndClearExpectations(backend.get());
    }
}

TEST_F(KelvaneClientTest, MalformedChallengePreventsTheDownloadButNotTheFeedback) {
    const std::pair<std::string, std::string> cases[] = {
        {std::string(kChallenge).substr(1),
         "ChallengeToByteBufferVector Wrong challenge length: '31'"},
        {std::string(kChallenge) + "0", "ChallengeToByteBufferVector Wrong challenge length: '33'"},
        {"0A1B2C3D4E5F6071829GA4B5C6D7E8F9",
         "ChallengeToByteBufferVectorChallenge parsing failed! Not hexadecimal digit: '9G'"}};
    for (const auto& [text, logged] : cases) {
        SCOPED_TRACE(text);
        log.Clear();
        RequestParams feedback;
        ON_CALL(*backend, ChallengeRequest(_, _, _))
            .WillByDefault(DoAll(SetArgReferee<2>(text), Return(true)));
        EXPECT_CALL(*backend, DownloadRequest(_, _, _, _)).Times(0);
        EXPECT_CALL(*tee, zelk_get_identity_hash(_, _)).Times(0);
        EXPECT_CALL(*backend, SendStatusFeedback(_, _, _))
            .WillOnce(DoAll(SaveArg<0>(&feedback), Return(0)));
        Construct();

        RunUpdate();

        EXPECT_EQ(log.Count(LogLevel::kError, logged), 2U);  // request and feedback
        EXPECT_TRUE(
            log.Contains(LogLevel::kError, "SetRequestParameters(): Incorrect Tesmo Challenge!"));
        EXPECT_TRUE(log.Contains(LogLevel::kError,
                                 "SetRequestParameters(): Setting the request parameters Failed!"));
        EXPECT_EQ(feedback.tesmoChallenge, text);
        EXPECT_TRUE(feedback.identityHash.empty());
        EXPECT_TRUE(log.Contains("Status feedback sent successfully"));
        ::testing::Mock::VerifyAndClearExpectations(backend.get());
        ::testing::Mock::VerifyAndClearExpectations(tee.get());
    }
}

TEST_F(KelvaneClientTest, ContainerProblemsEndTheUpdateButItIsReported) {
    EXPECT_CALL(*backend, DownloadRequest(_, _, _, _))
        .WillOnce(Return(false))
        .WillOnce(DoAll(SetArgReferee<3>("*** not base64 ***"), Return(true)));
    EXPECT_CALL(*tee, zelk_handle_dlc(Bytes{})).WillOnce(Return(ClientError::CLIENT_ERROR_ZELK));
    EXPECT_CALL(*backend, SendStatusFeedback(_, _, _)).Times(2).WillRepeatedly(Return(1));
    Construct();

    RunUpdate();
    RunUpdate();

    EXPECT_EQ(log.Count(LogLevel::kError, "Error downloading the container!"), 1U);
    EXPECT_EQ(log.Count(LogLevel::kError, "Error handling the DLC-container, bad DLC!"), 1U);
    EXPECT_EQ(log.Count(LogLevel::kError, "Error sending status feedback!"), 2U);
}

TEST_F(KelvaneClientTest, ConnectionLostBeforeOrAfterTheChallengeCancelsWhatIsStillAhead) {
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _))
        .WillOnce(Invoke([&](const std::string&, const std::string&, std::string& challenge) {
            vi->SetConnectionState(1);
            challenge = kChallenge;
            return true;
        }));
    EXPECT_CALL(*backend, DownloadRequest(_, _, _, _)).Times(0);
    EXPECT_CALL(*backend, SendStatusFeedback(_, _, _)).Times(0);
    Construct();
    vi->SetConnectionState(4);
    EXPECT_EQ(sut->HandleDlcUpdate(), "");
    vi->SetConnectionState(2);

    RunUpdate();

    EXPECT_TRUE(log.Contains(LogLevel::kError, "Challenge request cancelled! Connection state: 4"));
    EXPECT_TRUE(
        log.Contains(LogLevel::kError, "DLC download request cancelled! Connection state: 1"));
    EXPECT_TRUE(
        log.Contains(LogLevel::kError, "Status feedback sending cancelled! Connection state: 1"));
}

TEST_F(KelvaneClientTest, RequestParametersStopAtTheFirstFailureFeedbackParametersDoNot) {
    EXPECT_CALL(*tee, zelk_get_zelk_vin(_))
        .Times(2)
        .WillRepeatedly(Return(ClientError::CLIENT_ERROR_ZELK));
    EXPECT_CALL(*tee, zelk_get_training_counter(_)).Times(1);  // feedback only
    EXPECT_CALL(*tee, zelk_get_identity_hash(_, _)).Times(1);  // feedback only
    EXPECT_CALL(*backend, DownloadRequest(_, _, _, _)).Times(0);
    Construct();

    RunUpdate();

    EXPECT_TRUE(
        log.Contains(LogLevel::kError, "SetRequestParameters(): zelk_get_zelk_vin Failed!"));
    EXPECT_TRUE(
        log.Contains(LogLevel::kWarning, "SetFeedbackParameters(): zelk_get_zelk_vin Failed!"));
}

}  // namespace
}  // namespace kelvane_client
