#include "clampcontrolclient/clamp_control_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>

#include "clampcontrolclient/clamp_control_service.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"

// A restarted bus is walked through end to end.
namespace clampcontrolclient {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::WaitUntil;

constexpr auto kTimeout = 5s;

class MockClampControlCallback : public ClampControlCallbackIf {
public:
    MOCK_METHOD(void, ConnectionStateNotification, (bool), (override));
    MOCK_METHOD(void, ClampControlNotification, (bool), (override));
    MOCK_METHOD(void, ClampControlSubscribedNotification, (), (override));
};

TEST(ClampControlClientTest, SubscribesOnlyWhenStartedWithABusAndAnAcceptingService) {
    PrivateDbusDaemon bus;
    bus.Stop();
    std::atomic<int> calls{0};
    const auto counted = [&](auto...) { ++calls; };
    MockClampControlCallback callback;
    {
        const testing::InSequence inOrder;
        EXPECT_CALL(callback, ConnectionStateNotification(false)).WillOnce(counted);
        EXPECT_CALL(callback, ConnectionStateNotification(true)).WillOnce(counted);
        EXPECT_CALL(callback, ClampControlSubscribedNotification()).WillOnce(counted);
        EXPECT_CALL(callback, ClampControlNotification(false)).WillOnce(counted);
        EXPECT_CALL(callback, ClampControlNotification(true)).WillOnce(counted);
    }
    ClampControlClient sut;
    sut.RegisterCallback(&callback);
    sut.Start();
    EXPECT_EQ(sut.Subscribe(), "");
    ClampControlService service;
    service.SetAcceptSubscriptions(false);
    service.Offer();  // taken once the bus is there
    bus.Start();
    ASSERT_TRUE(WaitUntil([&] { return calls == 2; }, kTimeout));
    EXPECT_EQ(sut.Subscribe(), "");
    service.SetAcceptSubscriptions(true);

    EXPECT_FALSE(sut.Subscribe().empty());
    service.SetClampState(false);  // no change, no signal
    service.SetClampState(true);

    EXPECT_TRUE(WaitUntil([&] { return calls == 5; }, kTimeout));
    EXPECT_EQ(service.SubscriberCount(), 1U);
    sut.Stop();
    EXPECT_TRUE(WaitUntil([&] { return service.SubscriberCount() == 0; }, kTimeout));
}

}  // namespace
}  // namespace clampcontrolclient
