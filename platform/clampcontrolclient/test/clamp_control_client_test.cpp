#include "clampcontrolclient/clamp_control_client.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "clampcontrolclient/clamp_control_service.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"

// The client against the service, both on a bus of the test's own. A restarted bus is
// walked through end to end.
namespace clampcontrolclient {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::WaitUntil;
using Events = std::vector<std::string>;

constexpr auto kTimeout = 5s;

class RecordingCallback : public ClampControlCallbackIf {
public:
    void ConnectionStateNotification(bool connected) override {
        Add(connected ? "connected" : "disconnected");
    }
    void ClampControlNotification(bool clamp15On) override {
        Add(clamp15On ? "clamp15 on" : "clamp15 off");
    }
    void ClampControlSubscribedNotification() override { Add("subscribed"); }

    /// Waits until `count` events arrived; returns all of them.
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

TEST(ClampControlClientTest, SubscribesOnlyWhenStartedWithABusAndAnAcceptingService) {
    PrivateDbusDaemon bus;
    bus.Stop();
    RecordingCallback callback;
    ClampControlClient sut;
    sut.RegisterCallback(&callback);
    sut.Start();
    EXPECT_EQ(sut.Subscribe(), "");
    ClampControlService service;
    service.SetAcceptSubscriptions(false);
    service.Offer();  // taken once the bus is there
    bus.Start();
    ASSERT_EQ(callback.WaitFor(2).size(), 2U);
    EXPECT_EQ(sut.Subscribe(), "");
    service.SetAcceptSubscriptions(true);
    EXPECT_THROW(ClampControlClient().Subscribe(), std::logic_error);  // not started

    EXPECT_FALSE(sut.Subscribe().empty());
    service.SetClampState(false);  // no change, no signal
    service.SetClampState(true);

    EXPECT_EQ(callback.WaitFor(5),
              (Events{"disconnected", "connected", "subscribed", "clamp15 off", "clamp15 on"}));
    EXPECT_EQ(service.SubscriberCount(), 1U);
    sut.Stop();
    EXPECT_TRUE(WaitUntil([&] { return service.SubscriberCount() == 0; }, kTimeout));
}

}  // namespace
}  // namespace clampcontrolclient
