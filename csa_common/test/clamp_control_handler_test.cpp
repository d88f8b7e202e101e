#include "csa_common/clamp_control_handler.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"

namespace csa_common {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using testing::InSequence;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

constexpr auto kTimeout = 5s;
constexpr const char* kAttemptFailed = "ClampControlHandler: FAILED to subscribe to Clamp Control!";
constexpr const char* kThreadFailed =
    "ClampControlHandlerNB: FAILED to subscribe to Clamp Control!";
constexpr const char* kAttemptSucceeded = "ClampControlHandler: Subscribed to Clamp Control";
constexpr const char* kThreadSucceeded = "ClampControlHandlerNB: Subscribed to Clamp Control";

class MockClampControlClient : public clampcontrolclient::ClampControlClient {
public:
    MOCK_METHOD(void, RegisterCallback, (clampcontrolclient::ClampControlCallbackIf*), (override));
    MOCK_METHOD(void, Start, (), (override));
    MOCK_METHOD(std::string, Subscribe, (), (override));
};

class MockOwner : public ClampControlHandlerCbIf {
public:
    MOCK_METHOD(void, ClampStateChangeCb, (const std::string&, bool), (override));
    MOCK_METHOD(void, ClampControlConnectionStateChangeCb, (bool), (override));
    MOCK_METHOD(void, ClampSubscribedCb, (), (override));
};

// The retry thread's pause is counted and held until the test opens the gate.
class ClampControlHandlerTest : public testing::Test {
protected:
    ~ClampControlHandlerTest() override {
        if (gate_.wait_for(0s) != std::future_status::ready) {
            openGate_.set_value();
        }
    }

    csc_logging::LogCapture log_;
    std::shared_ptr<StrictMock<MockClampControlClient>> client_ =
        std::make_shared<StrictMock<MockClampControlClient>>();
    StrictMock<MockOwner> owner_;
    std::atomic<int> pauses_{0};
    std::promise<void> openGate_;
    std::shared_future<void> gate_ = openGate_.get_future().share();
    std::unique_ptr<ClampControlHandler> sut =
        std::make_unique<ClampControlHandler>(&owner_, client_, [this, gate = gate_] {
            ++pauses_;
            gate.wait();
        });
};

TEST_F(ClampControlHandlerTest, InitRegistersBeforeStartingAndBlockingSubscribeIsTrueOnlyWithAnId) {
    InSequence order;
    EXPECT_CALL(*client_, RegisterCallback(sut.get()));
    EXPECT_CALL(*client_, Start());
    EXPECT_CALL(*client_, Subscribe())
        .WillOnce(Return("clamp15-1"))
        .WillOnce(Return(""))
        .WillOnce(Throw(std::runtime_error("bus gone")));

    EXPECT_TRUE(sut->ClampControlInit());
    EXPECT_TRUE(sut->Subscribe());
    EXPECT_FALSE(sut->Subscribe());
    EXPECT_FALSE(sut->Subscribe());

    const std::vector<std::string> expected = {
        kAttemptSucceeded, kAttemptFailed,
        "ClampControlHandler: Exception while subscribing: bus gone"};
    EXPECT_EQ(log_.Texts(), expected);
}

// The second SubscribeNB waits for the first thread, held in its pause, then starts its own.
TEST_F(ClampControlHandlerTest, RetryThreadPausesAfterEmptyIdsEndsAtAnIdOrExceptionOneAtATime) {
    EXPECT_CALL(*client_, Subscribe())
        .WillOnce(Return(""))
        .WillOnce(Return(""))
        .WillOnce(Return("clamp15-1"))
        .WillOnce(Return(""))
        .WillOnce(Throw(std::runtime_error("no bus")));
    EXPECT_TRUE(sut->SubscribeNB());
    ASSERT_TRUE(log_.WaitFor(kThreadFailed, kTimeout));  // the pause comes next

    auto second = std::async(std::launch::async, [&] { return sut->SubscribeNB(); });

    EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
    openGate_.set_value();
    ASSERT_EQ(second.wait_for(kTimeout), std::future_status::ready);
    EXPECT_TRUE(second.get());
    const std::string exception = "ClampControlHandlerNB: Exception while subscribing: no bus";
    ASSERT_TRUE(log_.WaitFor(exception, kTimeout));
    sut.reset();  // joins the thread; a further attempt would break the strict mock
    EXPECT_EQ(pauses_.load(), 3);
    const std::vector<std::string> expected = {kAttemptFailed, kThreadFailed,     kAttemptFailed,
                                               kThreadFailed,  kAttemptSucceeded, kThreadSucceeded,
                                               kAttemptFailed, kThreadFailed,     exception};
    EXPECT_EQ(log_.Texts(), expected);
}

TEST_F(ClampControlHandlerTest, DestructionDuringTheRealPauseEndsTheThreadWithoutAnotherAttempt) {
    sut = std::make_unique<ClampControlHandler>(&owner_, client_);
    EXPECT_CALL(*client_, Subscribe()).WillOnce(Return(""));
    sut->SubscribeNB();
    ASSERT_TRUE(log_.WaitFor(kThreadFailed, kTimeout));  // the pause comes next

    sut.reset();  // a further attempt would break the strict mock
}

TEST_F(ClampControlHandlerTest, NotificationsReachTheOwnerAsClamp15AndWithoutOneOnlyLog) {
    InSequence order;
    EXPECT_CALL(owner_, ClampControlConnectionStateChangeCb(true));
    EXPECT_CALL(owner_, ClampSubscribedCb());
    EXPECT_CALL(owner_, ClampStateChangeCb("Clamp15", true));
    EXPECT_CALL(owner_, ClampControlConnectionStateChangeCb(false));
    ClampControlHandler withoutOwner(nullptr, client_);

    for (ClampControlHandler* handler : {sut.get(), &withoutOwner}) {
        handler->ConnectionStateNotification(true);
        handler->ClampControlSubscribedNotification();
        handler->ClampControlNotification(true);
    }
    sut->ConnectionStateNotification(false);

    const std::string prefix = "ClampControlHandler: Received a Clamp Control ";
    const std::string connection =
        "ClampControlHandler: Clamp Control Service connection state has changed to ";
    const std::vector<std::string> expected = {
        connection + "1", prefix + "subscribed notification", prefix + "state notification",
        connection + "1", prefix + "subscribed notification", prefix + "state notification",
        connection + "0"};
    EXPECT_EQ(log_.Texts(), expected);
    EXPECT_EQ(log_.Count(LogLevel::kDebug, "ClampControlHandler: "), expected.size());
}

std::atomic<int> signalsSeen{0};
void CountSignal(int) {
    ++signalsSeen;
}

TEST(ClampControlHandlerPauseTest, PauseLastsItsTimeNoMoreNoLessThoughSignalsInterruptIt) {
    struct sigaction action {};
    action.sa_handler = &CountSignal;  // no SA_RESTART: nanosleep returns EINTR
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    std::atomic<bool> done{false};
    const auto start = std::chrono::steady_clock::now();
    std::thread pausing([&] {
        ClampControlHandler::PauseBeforeRetry();
        done = true;
    });

    while (!done && std::chrono::steady_clock::now() - start < kTimeout) {
        pthread_kill(pausing.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(50ms);
    }
    pausing.join();
    const auto elapsed = std::chrono::steady_clock::now() - start;

    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_GT(signalsSeen.load(), 1);
    EXPECT_GE(elapsed, 500ms);
    EXPECT_LT(elapsed, 1500ms) << "an interrupted pause goes on with what was left";
}

}  // namespace
}  // namespace csa_common
