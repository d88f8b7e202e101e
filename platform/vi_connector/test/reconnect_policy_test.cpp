#include "reconnect_policy.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using TimePoint = ReconnectPolicy::TimePoint;

TEST(ReconnectPolicyTest, ABrokerThatAcceptsAndDropsGetsTwelveAttemptsAMinuteAndTwoReports) {
    TimePoint now{};
    // No jitter at all: the worst a random draw can do.
    ReconnectPolicy sut(
        250, 10000, [&] { return now; }, [](int) { return 0; });
    std::vector<TimePoint> attempts;
    int upReports = 0;
    int downReports = 0;

    while (now < TimePoint{} + 10min) {
        sut.Attempt();
        attempts.push_back(now);
        upReports += sut.Up() ? 1 : 0;
        now += 1s;  // accepted, then dropped
        const auto down = sut.LinkDown();
        downReports += down.report ? 1 : 0;
        now += down.wait;
    }

    std::size_t busiestMinute = 0;
    for (auto first = attempts.begin(); first != attempts.end(); ++first) {
        const auto end = std::lower_bound(first, attempts.end(), *first + 1min);
        busiestMinute = std::max(busiestMinute, static_cast<std::size_t>(end - first));
    }
    EXPECT_EQ(busiestMinute, ReconnectPolicy::kMaxAttemptsPerMinute);
    EXPECT_GE(attempts.size(), 100U);
    EXPECT_EQ(upReports, 2);    // the first link, the first return
    EXPECT_EQ(downReports, 2);  // its loss, the loss of the return
}

TEST(ReconnectPolicyTest, TheBackOffStartsOverOnlyAfterALinkHeldAMinute) {
    TimePoint now{};
    std::vector<int> ceilings;
    ReconnectPolicy sut(
        250, 10000, [&] { return now; },
        [&](int ceiling) {
            ceilings.push_back(ceiling);
            return ceiling;
        });
    std::vector<bool> ups;
    std::vector<bool> downs;
    const auto down = [&] {
        const auto result = sut.LinkDown();
        downs.push_back(result.report);
        now += result.wait;
    };

    for (int refused = 0; refused < 3; ++refused) {
        sut.Attempt();
        down();
    }
    for (const auto held : {59s, 60s}) {
        sut.Attempt();
        ups.push_back(sut.Up());
        now += held;
        down();
    }
    ups.push_back(sut.Up());

    EXPECT_EQ(ceilings, (std::vector<int>{250, 500, 1000, 2000, 250}));
    EXPECT_EQ(ups, (std::vector<bool>{true, false, true}));
    EXPECT_EQ(downs, (std::vector<bool>{true, false, false, true, true}));
}

}  // namespace
}  // namespace vi_connector
