#include "csa_common/clamp_control_handler.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "csc_logging/log_capture.hpp"

namespace csa_common {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
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
    MOCK_METHOD(void, Stop, (), (override));
};

class MockOwner : public ClampControlHandlerCbIf {
public:
    MOCK_METHOD(void, ClampStateChangeCb, (const std::string&, bool), (override));
    MOCK_METHOD(void, ClampControlConnectionStateChangeCb, (bool), (override));
    MOCK_METHOD(void, ClampSubscribedCb, (), (override));
};

// A pause the test controls: counts, and can hold the retry thread until released.
class ControlledPause {
public:
    void operator()() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++count_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return !holding_ || released_ >= count_; });
    }
    void Hold() {
        std::lock_guard<std::mutex> lock(mutex_);
        holding_ = true;
    }
    void ReleaseOne() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++released_;
        changed_.notify_all();
    }
    bool WaitForPauses(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kTimeout, [&] { return count_ >= count; });
    }
    int Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool holding_ = false;
    int count_ = 0;
    int released_ = 0;
};

class ClampControlHandlerTest : public testing::Test {
protected:
    std::unique_ptr<ClampControlHandler> MakeSut() {
        return std::make_unique<ClampControlHandler>(&owner_, client_, [this] { pause_(); });
    }

    LogCapture log_;
    std::shared_ptr<StrictMock<MockClampControlClient>> client_ =
        std::make_shared<StrictMock<MockClampControlClient>>();
    StrictMock<MockOwner> owner_;
    ControlledPause pause_;
};

TEST_F(ClampControlHandlerTest, InitRegistersBeforeStartingAndConstructionCallsNothing) {
    auto sut = MakeSut();
    InSequence order;
    EXPECT_CALL(*client_, RegisterCallback(
                              static_cast<clampcontrolclient::ClampControlCallbackIf*>(sut.get())));
    EXPECT_CALL(*client_, Start());

    EXPECT_TRUE(sut->ClampControlInit());
}

TEST_F(ClampControlHandlerTest, BlockingSubscribeIsTrueOnlyWithAnId) {
    auto sut = MakeSut();
    EXPECT_CALL(*client_, Subscribe())
        .WillOnce(Return("clamp15-1"))
        .WillOnce(Return(""))
        .WillOnce(Throw(std::runtime_error("bus gone")));

    EXPECT_TRUE(sut->Subscribe());
    EXPECT_FALSE(sut->Subscribe());
    EXPECT_FALSE(sut->Subscribe());

    EXPECT_EQ(log_.Count(LogLevel::kInfo, kAttemptSucceeded), 1U);
    EXPECT_EQ(log_.Count(LogLevel::kError, kAttemptFailed), 1U);
    EXPECT_TRUE(log_.Contains(LogLevel::kWarning,
                              "ClampControlHandler: Exception while subscribing: bus gone"));
    EXPECT_EQ(pause_.Count(), 0);
}

TEST_F(ClampControlHandlerTest, RetryThreadPausesAfterEachEmptyIdUntilOneComes) {
    auto sut = MakeSut();
    EXPECT_CALL(*client_, Subscribe())
        .WillOnce(Return(""))
        .WillOnce(Return(""))
        .WillOnce(Return(""))
        .WillOnce(Return("clamp15-1"));

    EXPECT_TRUE(sut->SubscribeNB());

    ASSERT_TRUE(log_.WaitFor(kThreadSucceeded, kTimeout));
    EXPECT_EQ(pause_.Count(), 3);
    const std::vector<std::string> expected = {kAttemptFailed,    kThreadFailed,   kAttemptFailed,
                                               kThreadFailed,     kAttemptFailed,  kThreadFailed,
                                               kAttemptSucceeded, kThreadSucceeded};
    EXPECT_EQ(log_.Texts(), expected);
    // The thread has ended: a new one starts at once and the old one is not asked again.
    EXPECT_CALL(*client_, Subscribe()).WillOnce(Return("clamp15-2"));
    EXPECT_TRUE(sut->SubscribeNB());
    EXPECT_TRUE(log_.WaitFor(kThreadSucceeded, kTimeout, 2));
}

TEST_F(ClampControlHandlerTest, ExceptionEndsTheRetryThreadWithoutFurtherAttempts) {
    auto sut = MakeSut();
    EXPECT_CALL(*client_, Subscribe())
        .WillOnce(Return(""))
        .WillOnce(Throw(std::runtime_error("no bus")));

    sut->SubscribeNB();

    ASSERT_TRUE(
        log_.WaitFor("ClampControlHandlerNB: Exception while subscribing: no bus", kTimeout));
    sut.reset();  // joins the thread; a further attempt would break the strict mock
    EXPECT_EQ(pause_.Count(), 1);
    EXPECT_EQ(log_.Count(LogLevel::kWarning, "Exception while subscribing"), 1U);
}

TEST_F(ClampControlHandlerTest, SubscribeNBWaitsForTheRunningRetryThread) {
    auto sut = MakeSut();
    pause_.Hold();
    {
        InSequence order;
        EXPECT_CALL(*client_, Subscribe()).WillOnce(Return(""));
        EXPECT_CALL(*client_, Subscribe()).WillOnce(Return("clamp15-1"));
        EXPECT_CALL(*client_, Subscribe()).WillOnce(Return("clamp15-2"));
    }
    sut->SubscribeNB();
    ASSERT_TRUE(pause_.WaitForPauses(1));

    auto second = std::async(std::launch::async, [&] { return sut->SubscribeNB(); });

    EXPECT_EQ(second.wait_for(100ms), std::future_status::timeout);
    pause_.ReleaseOne();
    ASSERT_EQ(second.wait_for(kTimeout), std::future_status::ready);
    EXPECT_TRUE(second.get());
    ASSERT_TRUE(log_.WaitFor(kThreadSucceeded, kTimeout, 2));
    EXPECT_EQ(log_.Count(kThreadFailed), 1U);
}

TEST_F(ClampControlHandlerTest, DestructionDuringThePauseEndsTheThreadWithoutAnotherAttempt) {
    // The real 500 ms pause.
    auto sut = std::make_unique<ClampControlHandler>(&owner_, client_);
    std::promise<void> attempted;
    EXPECT_CALL(*client_, Subscribe()).WillOnce([&] {
        attempted.set_value();
        return std::string();
    });
    sut->SubscribeNB();
    ASSERT_EQ(attempted.get_future().wait_for(kTimeout), std::future_status::ready);
    ASSERT_TRUE(log_.WaitFor(kThreadFailed, kTimeout));  // the pause comes next

    sut.reset();

    EXPECT_EQ(log_.Count(kThreadFailed), 1U);
    EXPECT_FALSE(log_.Contains(kThreadSucceeded));
}

TEST_F(ClampControlHandlerTest, NotificationsReachTheOwnerAsClamp15AndWithoutOneOnlyLog) {
    auto sut = MakeSut();
    InSequence order;
    EXPECT_CALL(owner_, ClampControlConnectionStateChangeCb(true));
    EXPECT_CALL(owner_, ClampSubscribedCb());
    EXPECT_CALL(owner_, ClampStateChangeCb("Clamp15", true));
    EXPECT_CALL(owner_, ClampStateChangeCb("Clamp15", false));
    EXPECT_CALL(owner_, ClampControlConnectionStateChangeCb(false));

    sut->ConnectionStateNotification(true);
    sut->ClampControlSubscribedNotification();
    sut->ClampControlNotification(true);
    sut->ClampControlNotification(false);
    sut->ConnectionStateNotification(false);

    EXPECT_TRUE(log_.Contains(
        LogLevel::kDebug,
        "ClampControlHandler: Clamp Control Service connection state has changed to 1"));
    EXPECT_TRUE(log_.Contains("Clamp Control Service connection state has changed to 0"));
    EXPECT_EQ(log_.Count(LogLevel::kDebug,
                         "ClampControlHandler: Received a Clamp Control state notification"),
              2U);
    EXPECT_EQ(log_.Count(LogLevel::kDebug,
                         "ClampControlHandler: Received a Clamp Control subscribed notification"),
              1U);
    ClampControlHandler withoutOwner(nullptr, client_);
    withoutOwner.ConnectionStateNotification(true);
    withoutOwner.ClampControlSubscribedNotification();
    withoutOwner.ClampControlNotification(true);
    EXPECT_EQ(log_.Count(LogLevel::kDebug, "ClampControlHandler: "), 8U);
}

std::atomic<int> signalsSeen{0};
void CountSignal(int) {
    ++signalsSeen;
}

TEST(ClampControlHandlerPauseTest, PauseLastsItsFullTimeThoughSignalsInterruptIt) {
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
}

}  // namespace
}  // namespace csa_common
