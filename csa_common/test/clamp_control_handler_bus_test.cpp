#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clampcontrolclient/clamp_control_service.hpp"
#include "csa_common/clamp_control_handler.hpp"
#include "csc_logging/log_capture.hpp"
#include "test_support/private_dbus_daemon.hpp"

// ClampControlHandler over the host clamp control client and the service, on a
// bus of the test's own.
namespace csa_common {
namespace {

using namespace std::chrono_literals;
using clampcontrolclient::ClampControlService;
using Events = std::vector<std::string>;

constexpr auto kTimeout = 5s;

class RecordingOwner : public ClampControlHandlerCbIf {
public:
    void ClampStateChangeCb(const std::string& clampName, bool state) override {
        Add(clampName + (state ? " on" : " off"));
    }
    void ClampControlConnectionStateChangeCb(bool connected) override {
        Add(connected ? "connected" : "disconnected");
    }
    void ClampSubscribedCb() override { Add("subscribed"); }

    Events WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kTimeout, [&] { return events_.size() >= count; });
        return events_;
    }

private:
    void Add(std::string event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Events events_;
};

class ClampControlHandlerBusTest : public testing::Test {
protected:
    kelvane::testing::PrivateDbusDaemon bus_;
    csc_logging::LogCapture log_;
    RecordingOwner owner_;
    ClampControlHandler sut_{&owner_};
};

TEST_F(ClampControlHandlerBusTest, StateArrivesOnceAfterSubscribingAndAfterEachRestart) {
    auto service = std::make_unique<ClampControlService>(true);
    service->Offer();
    ASSERT_TRUE(sut_.ClampControlInit());
    ASSERT_TRUE(sut_.Subscribe());
    ASSERT_EQ(owner_.WaitFor(3), (Events{"connected", "subscribed", "Clamp15 on"}));
    service->SetClampState(false);
    ASSERT_EQ(owner_.WaitFor(4), (Events{"connected", "subscribed", "Clamp15 on", "Clamp15 off"}));

    service.reset();
    service = std::make_unique<ClampControlService>(true);
    service->Offer();

    EXPECT_EQ(owner_.WaitFor(6), (Events{"connected", "subscribed", "Clamp15 on", "Clamp15 off",
                                         "disconnected", "connected"}));
    // The new instance knows nothing of the old subscription.
    EXPECT_TRUE(sut_.Subscribe());
    EXPECT_EQ(owner_.WaitFor(8), (Events{"connected", "subscribed", "Clamp15 on", "Clamp15 off",
                                         "disconnected", "connected", "subscribed", "Clamp15 on"}));
}

TEST_F(ClampControlHandlerBusTest, RetryThreadSubscribesOnceTheServiceAppears) {
    sut_.ClampControlInit();
    ASSERT_EQ(owner_.WaitFor(1), Events{"disconnected"});

    EXPECT_TRUE(sut_.SubscribeNB());
    ASSERT_TRUE(
        log_.WaitFor("ClampControlHandlerNB: FAILED to subscribe to Clamp Control!", kTimeout));
    ClampControlService service(true);
    service.Offer();

    EXPECT_TRUE(log_.WaitFor("ClampControlHandlerNB: Subscribed to Clamp Control", kTimeout));
    EXPECT_EQ(owner_.WaitFor(4), (Events{"disconnected", "connected", "subscribed", "Clamp15 on"}));
}

}  // namespace
}  // namespace csa_common
