#include "app/kelvane_client.hpp"

#include <botan/auto_rng.h>
#include <botan/ec_group.h>
#include <botan/ecdsa.h>
#include <botan/x509self.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "app/x509_validator.hpp"
#include "backend/transaction_types.hpp"
#include "csc_logging/log_capture.hpp"
#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"

namespace kelvane_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using qervo::tee::ClientError;
using namespace ::testing;
using TimePoint = std::chrono::system_clock::time_point;
using Bytes = std::vector<std::uint8_t>;
using Step = std::function<void()>;

const TimePoint kStart{std::chrono::seconds{1795342502}};  // 2026-11-22T10:15:02Z
const Step kTimeOut;  // a step in which nothing happens until the wait's time-out runs out
constexpr const char* kChallenge = "0A1B2C3D4E5F60718293A4B5C6D7E8F9";
constexpr const char* kContainerBase64 = "3q2+7w==";  // DE AD BE EF
constexpr ClientError kTeeError = ClientError::CLIENT_ERROR_ZELK;

// Runs the loop on the test's own thread: whenever the loop would block, the
// test's next step runs instead, with the loop's lock released as a real wait
// releases it. With no step left, the client is told to terminate.
class ScriptedClock : public Clock {
public:
    TimePoint Now() const override { return now; }

    void Wait(std::condition_variable& /*cv*/, std::unique_lock<std::mutex>& lock,
              std::optional<TimePoint> deadline, const std::function<bool()>& wake) override {
        while (!wake() && !(deadline && now >= *deadline)) {
            const Step step = steps.empty() ? onIdle : steps.front();
            if (!steps.empty()) {
                steps.pop_front();
            }
            if (!step) {  // kTimeOut: only the deadline can end this wait
                EXPECT_TRUE(deadline.has_value()) << "a wait that was to time out has no deadline";
                now = deadline.value_or(now);
                continue;
            }
            lock.unlock();
            step();
            lock.lock();
        }
    }

    TimePoint now = kStart;
    std::deque<Step> steps;
    Step onIdle;
};

class FakeViConnector : public vi_connector::VIConnector {
public:
    FakeViConnector() : VIConnector(NoConfiguration{}) {}

    // Like the real one, every Start() is reported once.
    void Start() override { session->VIConnectorStatus(startStatus); }
    vi_connector::SessionStatus GetSessionStatus() const override { return startStatus; }
    // Tokens succeed with status 1, URLs with status 0.
    vi_connector::TokenResult GetToken(const std::string& id) override {
        return {tokenStatus.count(id) != 0 ? tokenStatus[id] : 1U, "token-" + id};
    }
    vi_connector::UrlResult GetInvocationUrl(const std::string& id) override {
        return {urlStatus.count(id) != 0 ? urlStatus[id] : 0U, "http://backend/" + id};
    }
    unsigned int SubscribeTransactionTypeState(
        std::string id, vi_connector::VIServiceControllerCallbackIf* callback,
        unsigned int /*flags*/) override {
        if (stateSubscriptionResult != 0) {
            stateCallback_ = callback;
            callback->VISCConnectionState({id, initialState});
        }
        return stateSubscriptionResult;
    }

    void SetConnectionState(std::uint8_t state,
                            const std::string& id = ConnectionStateTransactionTypeId) {
        stateCallback_->VISCConnectionState({id, state});
    }

    vi_connector::VISessionCallbackIf* session = nullptr;
    vi_connector::SessionStatus startStatus = vi_connector::SessionStatus::kOk;
    std::uint8_t initialState = 2;
    unsigned int stateSubscriptionResult = 1;
    std::map<std::string, std::uint32_t> tokenStatus;  // by transaction type
    std::map<std::string, std::uint32_t> urlStatus;

private:
    vi_connector::VIServiceControllerCallbackIf* stateCallback_ = nullptr;
};

class MockZelkOnlineUpdateApi : public qervo::tee::ZELKOnlineUpdateAPI {
public:
    MOCK_METHOD(ClientError, zelk_handle_dlc, (Bytes), (override));
    MOCK_METHOD(ClientError, zelk_get_certificate, (std::string, std::string&), (override));
    MOCK_METHOD(ClientError, zelk_get_identity_hash, (Bytes&, const Bytes&), (override));
    MOCK_METHOD(ClientError, zelk_get_pss_hash, (Bytes&), (override));
    MOCK_METHOD(ClientError, zelk_get_training_counter, (std::uint16_t&), (override));
    MOCK_METHOD(ClientError, zelk_get_zelk_vin, (Bytes&), (override));
    MOCK_METHOD(ClientError, ecu_get_part_number, (std::string&), (override));
    MOCK_METHOD(ClientError, ecu_get_diagnostic_id, (std::string&), (override));
    MOCK_METHOD(ClientError, ecu_get_tesmo_id_string, (std::string&), (override));
};

class MockBackendConnection : public BackendConnectionIf {
public:
    MOCK_METHOD(bool, ChallengeRequest, (const std::string&, const std::string&, std::string&),
                (override));
    MOCK_METHOD(bool, DownloadRequest,
                (const std::string&, const RequestParams&, const std::string&, std::string&),
                (override));
    MOCK_METHOD(int, SendStatusFeedback,
                (const RequestParams&, const std::string&, const std::string&), (const, override));
};

class MockMqttConnection : public csa_common::MqttConnectionIf {
public:
    MOCK_METHOD(bool, Subscribe, (const std::string&), (override));
    MOCK_METHOD(bool, Connect, (), (override));
    MOCK_METHOD(std::uint32_t, Disconnect, (), (override));
    MOCK_METHOD(bool, CheckReceivedUpdate, (), (override));
    MOCK_METHOD(std::string, GetReceivedMessage, (), (override));
    MOCK_METHOD(bool, Publish,
                (const std::string&, const std::string&, bool, unsigned, unsigned, std::string),
                (override));
};

class MockClampControlHandler : public csa_common::ClampControlHandlerIf {
public:
    MOCK_METHOD(bool, ClampControlInit, (), (override));
    MOCK_METHOD(bool, Subscribe, (), (override));
    MOCK_METHOD(bool, SubscribeNB, (), (override));
};

// A key-management call that succeeds and hands `value` out through argument N.
template <std::size_t N, typename T>
auto Gives(T value) {
    return DoAll(SetArgReferee<N>(value), Return(ClientError{}));
}

// A self-signed certificate made by the test itself, valid until `notAfter`.
std::string MakeCertificate(const Botan::X509_Time& notAfter, bool pem = false) {
    static Botan::AutoSeeded_RNG rng;
    static const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("Base certificate/DE/Kelvane/Test");
    options.start = Botan::X509_Time(kStart - 400 * 24h);
    options.end = notAfter;
    const auto certificate = Botan::X509::create_self_signed_cert(options, key, "SHA-256", rng);
    const auto der = certificate.BER_encode();
    return pem ? certificate.PEM_encode() : std::string(der.begin(), der.end());
}

// The fixture is the client's factory: it hands out its fakes, and the real
// lifecycle adapter, kept quiet.
class KelvaneClientTest : public ::testing::Test, public CollaboratorFactory {
protected:
    std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter> CreateLifecycleAdapter(
        const std::string& name,
        process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf* callback) const override {
        // Without its file it keeps alive every 5 s, later than any test here lasts.
        return std::make_shared<process_lifecycle_adapter::ProcessLifecycleAdapter>(
            name, callback, "/nonexistent/kelvane-client-phm.ini");
    }
    std::shared_ptr<vi_connector::VIConnector> CreateViConnector(
        vi_connector::VISessionCallbackIf* callback) const override {
        vi->session = callback;
        return failing == "VIConnector" ? nullptr : vi;
    }
    std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> CreateTee() const override {
        return failing == "Tee" ? throw std::runtime_error("no bus") : tee;
    }
    std::shared_ptr<csa_common::MqttConnectionIf> CreateMqttConnection(
        std::shared_ptr<vi_connector::VIConnector> /*connector*/,
        csa_common::MqttConnectionCbIf* /*callback*/) const override {
        return failing == "MqttConnection" ? nullptr : mqtt;
    }
    std::shared_ptr<BackendConnectionIf> CreateBackendConnection(
        std::shared_ptr<vi_connector::VIConnector> /*connector*/) const override {
        return failing == "BackendConnection" ? nullptr : backend;
    }
    std::shared_ptr<csa_common::ClampControlHandlerIf> CreateClampControlHandler(
        csa_common::ClampControlHandlerCbIf* /*callback*/) const override {
        return failing == "ClampControlHandler" ? nullptr : clamp;
    }

    void SetUp() override {
        clock->onIdle = [this] { sut->ProcessLifecycleAdapterTerminate(); };
        Fresh();
    }

    /// New fakes that answer every call with success.
    void Fresh() {
        sut.reset();
        vi = std::make_shared<FakeViConnector>();
        tee = std::make_shared<NiceMock<MockZelkOnlineUpdateApi>>();
        mqtt = std::make_shared<NiceMock<MockMqttConnection>>();
        backend = std::make_shared<NiceMock<MockBackendConnection>>();
        clamp = std::make_shared<NiceMock<MockClampControlHandler>>();
        ON_CALL(*tee, zelk_get_certificate(_, _))
            .WillByDefault(Gives<1>(MakeCertificate(Botan::X509_Time(kStart + 100 * 24h))));
        ON_CALL(*tee, ecu_get_diagnostic_id(_)).WillByDefault(Gives<0>(std::string("DIAG-1")));
        ON_CALL(*tee, ecu_get_part_number(_)).WillByDefault(Gives<0>(std::string("V04007000TB")));
        ON_CALL(*tee, ecu_get_tesmo_id_string(_)).WillByDefault(Gives<0>(std::string("TESMO-ID")));
        ON_CALL(*tee, zelk_get_zelk_vin(_)).WillByDefault(Gives<0>(Bytes{'V', 'I', 'N'}));
        ON_CALL(*tee, zelk_get_training_counter(_)).WillByDefault(Gives<0>(std::uint16_t{42}));
        ON_CALL(*tee, zelk_get_pss_hash(_)).WillByDefault(Gives<0>(Bytes{0x55}));
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
    }

    void ConstructOnly() { sut = std::make_unique<KelvaneClient>(*this, clock); }
    void Construct() {
        ConstructOnly();
        sut->Init();
    }

    /// Constructs, initialises and runs the loop through `steps` to its end.
    void Run(std::deque<Step> steps) {
        Construct();
        clock->steps = std::move(steps);
        sut->Main();
    }

    /// A step: time passes, then the loop is woken.
    Step After(std::chrono::nanoseconds time) {
        return [this, time] {
            clock->now += time;
            sut->SendTrigger();
        };
    }

    LogCapture log;
    std::shared_ptr<ScriptedClock> clock = std::make_shared<ScriptedClock>();
    std::shared_ptr<FakeViConnector> vi;
    std::shared_ptr<NiceMock<MockZelkOnlineUpdateApi>> tee;
    std::shared_ptr<NiceMock<MockMqttConnection>> mqtt;
    std::shared_ptr<NiceMock<MockBackendConnection>> backend;
    std::shared_ptr<NiceMock<MockClampControlHandler>> clamp;
    std::string failing;  // the class name of a collaborator that cannot be created
    std::unique_ptr<KelvaneClient> sut;
};

TEST_F(KelvaneClientTest, StartsInOrderAndEndsMqttDeliveryBeforeReleasingCollaborators) {
    ::testing::InSequence sequence;
    EXPECT_CALL(*clamp, ClampControlInit()).WillOnce(Invoke([&] {
        EXPECT_TRUE(log.Contains("Connection state notification, new state: 2")) << "comes first";
        return true;
    }));
    EXPECT_CALL(*mqtt, Connect()).WillOnce(Return(true));
    long clampHolders = 0;
    EXPECT_CALL(*mqtt, Disconnect()).WillOnce(Invoke([&] {
        clampHolders = clamp.use_count();
        return 0U;
    }));

    ConstructOnly();
    const bool mqttFailed = sut->Init();
    sut.reset();

    EXPECT_TRUE(mqttFailed);
    long at = 0;
    for (const char* line :
         {"Kelvane Client Started", "Kelvane Client version: 2.2.5-support-0.0.9",
          "Waiting for VI-Connector to start", "VI-Connector was started successfully.",
          "Botan Version ", "MQTT Connection FAILED! Result: 1"}) {
        const long found = log.IndexOf(line, static_cast<std::size_t>(at));
        EXPECT_GE(found, at) << line;
        at = found;
    }
    EXPECT_EQ(clampHolders, 2);  // the test's share and the client's
}

TEST_F(KelvaneClientTest, CollaboratorThatCannotBeCreatedIsNamedAndStopsConstruction) {
    for (const char* collaborator :
         {"VIConnector", "Tee", "MqttConnection", "BackendConnection", "ClampControlHandler"}) {
        SCOPED_TRACE(collaborator);
        log.Clear();
        failing = collaborator;

        EXPECT_THROW(ConstructOnly(), std::runtime_error);

        EXPECT_EQ(log.Count(LogLevel::kError, "Cannot create "s + collaborator + "!"), 1U);
        EXPECT_FALSE(log.Contains("Waiting for VI-Connector to start"));
    }
}

TEST_F(KelvaneClientTest, PlatformSessionFailuresAreLoggedAndOnlyARejectionEndsTheLoop) {
    vi->startStatus = static_cast<vi_connector::SessionStatus>(5);
    vi->stateSubscriptionResult = 0;

    Run({After(1h), [&] { sut->VIConnectorStatus(vi_connector::SessionStatus::kRejected); }});

    EXPECT_TRUE(log.Contains(LogLevel::kError, "VI-Connector failed to start!"));
    EXPECT_TRUE(log.Contains(LogLevel::kError, "VIConnector Status Failed=5"));
    EXPECT_EQ(log.Count(LogLevel::kError, "Subscribe to connection state failed!"), 1U);
    EXPECT_EQ(log.Count("MQTT subscribe handling ignored! Connection state: 0"), 2U);
    EXPECT_TRUE(log.Contains(LogLevel::kError, "VIConnector Status Rejected=3"));
    EXPECT_LT(log.IndexOf("Kelvane client stopped, VIConnector Status=3"),
              log.IndexOf("Kelvane Client Terminated."));
    EXPECT_FALSE(log.Contains("Handling Kelvane Client Termination Request"));
}

TEST_F(KelvaneClientTest, UpdateAndSubscriptionWaitForTheConnectionAndTerminationForNeither) {
    vi->initialState = 1;
    EXPECT_CALL(*mqtt, Subscribe(_)).Times(1);

    Run({[&] { sut->MQTTMessageReceivedCb(); }, [&] { sut->SendTrigger(); },
         [&] { vi->SetConnectionState(4); }, [&] { vi->SetConnectionState(3); },
         [&] { vi->SetConnectionState(1, "TTVI-Kelvane-C003.other"); },
         [&] {
             for (int push = 0; push < 3; ++push) {
                 sut->MQTTMessageReceivedCb();  // after two ignored ones, an update is pending
             }
             sut->ProcessLifecycleAdapterTerminate();  // and termination comes first
         }});

    EXPECT_EQ(log.Count(LogLevel::kInfo, "DLC Update pending! Connection state: 1"), 2U);
    EXPECT_EQ(log.Count(LogLevel::kInfo, "DLC Update pending! Connection state: 4"), 1U);
    EXPECT_EQ(log.Count("MQTT subscribe handling ignored! Connection state: 4"), 1U);
    EXPECT_TRUE(log.Contains("Process timeout set to inf"));
    EXPECT_EQ(log.Count("DLC Update Started"), 1U);
    EXPECT_EQ(sut->GetUpdateState(), UpdateState::kPending);
    EXPECT_EQ(log.Count("Connection state notification"), 3U);
    EXPECT_LT(log.IndexOf("Handling Kelvane Client Termination Request"),
              log.IndexOf("Kelvane Client Terminated."));
    EXPECT_FALSE(sut->CheckConnectionState());
}

TEST_F(KelvaneClientTest, FailedSubscriptionsAreRetriedAtTheirDeadlinesClampAfter10sMqttAfter60s) {
    EXPECT_CALL(*mqtt, Subscribe(MqttInitiationOperationTypeId))
        .WillOnce(Return(true))  // a failure waits for a request
        .WillRepeatedly(Return(false));
    EXPECT_CALL(*clamp, Subscribe()).WillOnce(Return(false)).WillRepeatedly(Return(true));
    const auto connected = [&](bool state) {
        return [&, state] { sut->ClampControlConnectionStateChangeCb(state); };
    };

    // Refused at 0 s: MQTT is due at 60 s. The clamp subscription fails at 52 s: due at 62 s.
    Run({[&] { sut->MQTTSubscribeFailedCb(); }, After(52s), connected(true), kTimeOut, kTimeOut,
         connected(true), connected(false), connected(true), [&] { sut->MQTTResubscribeCb(); }});

    EXPECT_EQ(log.Count(LogLevel::kError, "MQTT Subscription FAILED!"), 1U);
    EXPECT_TRUE(log.Contains("MQTT Subscribtion failed"));
    EXPECT_TRUE(log.Contains("Retrying after 10 seconds..."));
    long at = 0;
    for (const char* timeout : {"61s", "9s", "9s", "2s"}) {  // the smaller of the two, then clamp
        at = log.IndexOf(std::string("Process timeout set to: ") + timeout,
                         static_cast<std::size_t>(at) + 1);
        EXPECT_GT(at, 0) << timeout;
    }
    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 3U);
    EXPECT_EQ(log.Count("Subscribing to Clamp Control Service"), 3U);  // not when still connected
    EXPECT_EQ(log.Count("All subscriptions and connections ready"), 3U);
    EXPECT_EQ(
        log.Count(LogLevel::kDebug, "Clamp Control Service connection state has changed to 0"), 1U);
    EXPECT_EQ(clock->now, kStart + 63s);
}

TEST_F(KelvaneClientTest, RefusalBeforeTheSubscribeCallReturnsLeavesTheClientUnsubscribed) {
    EXPECT_CALL(*mqtt, Subscribe(MqttInitiationOperationTypeId))
        .WillOnce(Invoke([&](const std::string&) {
            sut->MQTTSubscribeFailedCb();
            return false;
        }))
        .WillOnce(Return(false));

    Run({[&] { sut->ClampControlConnectionStateChangeCb(true); }, After(61s)});

    EXPECT_EQ(log.Count("Handling MQTT subscription request."), 2U);
    EXPECT_EQ(log.Count("All subscriptions and connections ready"), 1U);
}

TEST_F(KelvaneClientTest, ClampOnStartsAnUpdateOnlyForAnExpiringCertificateAndNotDuringOne) {
    EXPECT_CALL(*tee, zelk_get_certificate("BASE", _))
        .WillOnce(Gives<1>(MakeCertificate(Botan::X509_Time(kStart + 400 * 24h))))
        .WillOnce(Return(ClientError::CLIENT_ERROR_NOT_READY))
        .WillOnce(Gives<1>(MakeCertificate(Botan::X509_Time(kStart + 364 * 24h))));
    const auto triggerAgain = [&] {
        sut->ClampStateChangeCb("Clamp15", true);
        sut->MQTTMessageReceivedCb();
    };
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _))
        .WillOnce(DoAll(Invoke(triggerAgain), SetArgReferee<2>(kChallenge), Return(true)));
    EXPECT_CALL(*backend, DownloadRequest(_, _, _, _))
        .WillOnce(DoAll(Invoke(triggerAgain), SetArgReferee<3>(kContainerBase64), Return(true)));
    EXPECT_CALL(*backend,
                SendStatusFeedback(Field(&RequestParams::tesmoChallenge, kChallenge), _, _));
    const Step clampOn = [&] { sut->ClampStateChangeCb("Clamp15", true); };

    Run({[&] { sut->ClampStateChangeCb("Clamp15", false); }, clampOn, clampOn, clampOn});

    EXPECT_EQ(log.Count("Clamp15 has changed state to 0"), 1U);
    EXPECT_EQ(log.Count("Clamp15 has changed state to 1"), 5U);
    EXPECT_EQ(log.Count(LogLevel::kError, "Error getting the Base certificate!"), 1U);
    EXPECT_LT(log.IndexOf("The Base Certificate expires in less than one year"),
              log.IndexOf("DLC Update Started"));
    EXPECT_EQ(log.Count("DLC update is already pending, ignore clamp15"), 1U);
    EXPECT_EQ(log.Count("DLC update is already started, ignore clamp15"), 1U);
    EXPECT_EQ(log.Count("DLC update is already pending, ignore MQTT message"), 1U);
    EXPECT_EQ(log.Count("DLC update is already started, ignore MQTT message"), 1U);
    EXPECT_EQ(log.Count("DLC Update Started"), 1U);
}

TEST_F(KelvaneClientTest, TwoMqttPushesAfterAnMqttUpdateThatGotAChallengeAreIgnoredUntilClampOn) {
    // The first notification finds the store already emptied: nothing to fetch.
    EXPECT_CALL(*mqtt, CheckReceivedUpdate()).WillOnce(Return(false)).WillRepeatedly(Return(true));
    EXPECT_CALL(*mqtt, GetReceivedMessage()).Times(5).WillRepeatedly(Return("push"));
    EXPECT_CALL(*backend, ChallengeRequest(_, _, _))
        .Times(5)
        .WillOnce(Return(false))
        .WillRepeatedly(DoAll(SetArgReferee<2>(kChallenge), Return(true)));
    const Step push = [&] { sut->MQTTMessageReceivedCb(); };

    Run({push, push, [&] { sut->ClampStateChangeCb("Clamp15", true); }, push, push, push, push});

    EXPECT_EQ(log.Count(LogLevel::kError, "Error downloading the challenge!"), 1U);
    EXPECT_EQ(log.Count("Update job #1 Ignored!"), 1U);
    EXPECT_EQ(log.Count("Update job #2 Ignored!"), 1U);
    EXPECT_EQ(log.Count("DLC Update Started"), 5U);
}

TEST_F(KelvaneClientTest, TimeoutFollowsWhatIsDue) {
    ConstructOnly();
    sut->SubscribeToConnectionState();
    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);

    sut->MQTTSubscribeFailedCb();  // due at start + 60 s
    EXPECT_EQ(sut->CalculateTimeout(), 61);
    clock->now -= 99'938s;  // due in 99998 s: the longest time-out
    EXPECT_EQ(sut->CalculateTimeout(), 99'999);
    clock->now -= 1s;  // further ahead: none
    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);
    clock->now += 99'939s + 59600ms;
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    clock->now += 5400ms;
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    EXPECT_TRUE(log.Contains(LogLevel::kWarning, "MQTT Resubscribe has negative timeout."));
    vi->SetConnectionState(1);
    EXPECT_EQ(sut->CalculateTimeout(), KelvaneClient::kInfiniteTimeout);

    sut->ClampControlConnectionStateChangeCb(true);  // retry time never set: long past
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    EXPECT_TRUE(log.Contains(LogLevel::kWarning, "Clamp Control Subscribe has negative timeout."));
    vi->SetConnectionState(0);
    sut->MQTTSubscribeFailedCb();  // both pending: the clamp retry, long past, comes first
    EXPECT_EQ(sut->CalculateTimeout(), 1);
    vi->SetConnectionState(2);
    sut->MQTTMessageReceivedCb();  // an update to run: at once, but never 0
    EXPECT_EQ(sut->CalculateTimeout(), 1);
}

TEST_F(KelvaneClientTest, WithTheRealClockAWaitEndsOnlyAtATriggerOrAtItsDeadline) {
    sut = std::make_unique<KelvaneClient>(*this, std::make_shared<Clock>());

    // The trigger takes the lock: it gets through only while the wait has let go of it.
    auto waiting = std::async(std::launch::async,
                              [&] { sut->WaitForTrigger(KelvaneClient::kInfiniteTimeout); });
    ASSERT_TRUE(log.WaitFor("Process timeout set to inf", 5s));  // under the trigger's lock
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    sut->SendTrigger();
    EXPECT_EQ(waiting.wait_for(4s), std::future_status::ready) << "woken";
    waiting = std::async(std::launch::async, [&] { sut->WaitForTrigger(1); });
    EXPECT_EQ(waiting.wait_for(4s), std::future_status::ready) << "not ended by its deadline";
    sut->SendTrigger();  // frees a wait that missed its deadline
}

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
    sut->SendStatusFeedBack(challenge);

    EXPECT_EQ(challenge, kChallenge);
    // The challenge's bytes, then the fake's mark.
    const Bytes hash = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 0x60, 0x71, 0x82,
                        0x93, 0xA4, 0xB5, 0xC6, 0xD7, 0xE8, 0xF9, 0x1D};
    const auto fields = [](const RequestParams& p) {
        return std::tie(p.tesmoChallenge, p.diagnosticID, p.partNumber, p.tesmoIdString, p.zelkVin,
                        p.trainingCounter, p.pssHash, p.identityHash);
    };
    const RequestParams expected{kChallenge,      "DIAG-1", "V04007000TB", "TESMO-ID",
                                 {'V', 'I', 'N'}, 42,       {0x55},        hash};
    EXPECT_EQ(fields(downloadParams), fields(expected));
    EXPECT_EQ(fields(feedbackParams), fields(expected));
    EXPECT_LT(log.IndexOf("DLC Update finished successfully."),
              log.IndexOf("Status feedback sent successfully"));
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U) << log.Dump();
}

TEST_F(KelvaneClientTest, FailingStepEndsTheUpdateThereAndTheFeedbackStillReportsIt) {
    const auto challenge = [&](
                               const std::string& text, const Step& meanwhile = [] {}) {
        ON_CALL(*backend, ChallengeRequest(_, _, _))
            .WillByDefault(DoAll(Invoke(meanwhile), SetArgReferee<2>(text), Return(true)));
    };
    const auto download = [&](const std::string& container) {
        ON_CALL(*backend, DownloadRequest(_, _, _, _))
            .WillByDefault(DoAll(SetArgReferee<3>(container), Return(true)));
    };
    // Rows are named by their first log line.
    struct Row {
        Step arrange;
        // Identity hashes count those for the request and for the feedback.
        int downloads, hashes, feedbacks;
        std::string logged;  // lines, each to be found in the log
    };
    const Row rows[] = {
        {[&] { vi->tokenStatus[ChallengeRequestOperationTypeId] = 0; }, 0, 0, 1,
         "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcChallenge', status=0\n"
         "ChallengeToByteBufferVector Wrong challenge length: '0'\n"
         "SetFeedbackParameters(): Empty challenge, identityHash set to empty!"},
        {[&] { vi->tokenStatus[StatusFeedbackOperationTypeId] = 2; }, 1, 2, 0,
         "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcStatusFeedback', status=2"},
        {[&] { vi->urlStatus[ChallengeRequestOperationTypeId] = 2; }, 0, 0, 1,
         "Failed to get the URL for 'TTVI-Kelvane-C003.COzelkDlcChallenge', status=2"},
        {[&] { challenge(std::string(kChallenge).substr(1)); }, 0, 0, 1,
         "ChallengeToByteBufferVector Wrong challenge length: '31'\n"
         "SetRequestParameters(): Incorrect Tesmo Challenge!\n"
         "SetRequestParameters(): Setting the request parameters Failed!"},
        {[&] { challenge(std::string(kChallenge) + "0"); }, 0, 0, 1,
         "ChallengeToByteBufferVector Wrong challenge length: '33'\n"
         "SetRequestParameters(): Incorrect Tesmo Challenge!"},
        {[&] { challenge("0A1B2C3D4E5F6071829GA4B5C6D7E8F9"); }, 0, 0, 1,
         "ChallengeToByteBufferVectorChallenge parsing failed! Not hexadecimal digit: '9G'"},
        // std::stoi would take "+9".
        {[&] { challenge("0A1B2C3D4E5F607182+9A4B5C6D7E8F9"); }, 0, 0, 1,
         "ChallengeToByteBufferVectorChallenge parsing failed! Not hexadecimal digit: '+9'"},
        {[&] { ON_CALL(*tee, zelk_get_zelk_vin(_)).WillByDefault(Return(kTeeError)); }, 0, 1, 1,
         "SetRequestParameters(): zelk_get_zelk_vin Failed!\n"
         "SetFeedbackParameters(): zelk_get_zelk_vin Failed!"},
        {[&] { vi->urlStatus[DownloadRequestOperationTypeId] = 1; }, 0, 2, 1,
         "Got Token for 'TTVI-Kelvane-C003.COzelkDlcDownload'\n"
         "Failed to get the URL for 'TTVI-Kelvane-C003.COzelkDlcDownload', status=1"},
        {[&] { vi->SetConnectionState(4); }, 0, 0, 0,
         "Challenge request cancelled! Connection state: 4\n"
         "Status feedback sending cancelled! Connection state: 4"},
        {[&] { challenge(kChallenge, [&] { vi->SetConnectionState(1); }); }, 0, 2, 0,
         "DLC download request cancelled! Connection state: 1\n"
         "Status feedback sending cancelled! Connection state: 1"},
        {[&] {
             download("");
             EXPECT_CALL(*tee, zelk_handle_dlc(_)).Times(0);
         },
         1, 2, 1, "Error downloading the container!"},
        {[&] {
             download("*** not base64 ***");
             EXPECT_CALL(*tee, zelk_handle_dlc(Bytes{})).WillOnce(Return(kTeeError));
         },
         1, 2, 1, "Error handling the DLC-container, bad DLC!"},
        {[&] { ON_CALL(*backend, SendStatusFeedback(_, _, _)).WillByDefault(Return(1)); }, 1, 2, 1,
         "Error sending status feedback!"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.logged);
        Fresh();
        log.Clear();
        Construct();
        row.arrange();
        EXPECT_CALL(*backend, DownloadRequest(_, _, _, _)).Times(row.downloads);
        EXPECT_CALL(*tee, zelk_get_identity_hash(_, _)).Times(row.hashes);
        EXPECT_CALL(*backend, SendStatusFeedback(_, _, _)).Times(row.feedbacks);

        sut->SendStatusFeedBack(sut->HandleDlcUpdate());

        std::istringstream logged(row.logged);
        for (std::string line; std::getline(logged, line);) {
            EXPECT_TRUE(log.Contains(line)) << line;
        }
        ::testing::Mock::VerifyAndClearExpectations(backend.get());
        ::testing::Mock::VerifyAndClearExpectations(tee.get());
    }
}

TEST(X509ValidatorTest, UpdateIsNeededWhenLessThan365DaysAreLeftOrTheCertificateIsUnreadable) {
    using Botan::X509_Time;
    // ctime's text, whose closing line feed the log shows escaped.
    const auto at = [](std::time_t seconds) {
        char text[64] = {};
        std::string line = ::ctime_r(&seconds, text);
        return line.substr(0, line.size() - 1) + "\\n";
    };
    const std::time_t now = std::chrono::system_clock::to_time_t(kStart);
    // Name, certificate, its expiry in seconds since 1970 (0: unreadable, nothing logged), no
    // update needed. A nanosecond system-clock time point ends in April 2262.
    const std::tuple<const char*, std::string, std::time_t, bool> rows[] = {
        {"expired", MakeCertificate(X509_Time(kStart - 24h)), now - 86400, false},
        {"a second short of a year", MakeCertificate(X509_Time(kStart + 31'535'999s)),
         now + 31'535'999, false},
        {"a year, PEM", MakeCertificate(X509_Time(kStart + 31'536'000s), true), now + 31'536'000,
         true},
        {"April 2262", MakeCertificate(X509_Time("22620412000000Z", Botan::GENERALIZED_TIME)),
         9'223'372'800, true},
        {"year 3000", MakeCertificate(X509_Time("30000101000000Z", Botan::GENERALIZED_TIME)),
         32'503'680'000, true},
        {"empty", "", 0, false},
        {"garbage", "garbage, not a certificate", 0, false},
        {"truncated", MakeCertificate(X509_Time(kStart + 800 * 24h)).substr(0, 200), 0, false},
        {"PEM of garbage", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", 0,
         false}};
    for (const auto& [name, certificate, expiry, valid] : rows) {
        SCOPED_TRACE(name);
        LogCapture log;

        EXPECT_EQ(x509_validator::IsCertificateValid(certificate, kStart), valid);

        const std::vector<std::string> logged = {
            "Current system time is " + at(now), "The Base Certificate expires at " + at(expiry),
            valid ? "Certificate is valid for more than one year, no DLC Update needed"
                  : "The Base Certificate expires in less than one year. Starting the DLC Update"};
        EXPECT_EQ(log.Texts(), expiry == 0 ? std::vector<std::string>{} : logged);
    }
}

}  // namespace
}  // namespace kelvane_client
