#include "reconnect_policy.hpp"

#include <algorithm>
#include <memory>
#include <random>

namespace vi_connector {

ReconnectPolicy::ReconnectPolicy(int minDelayMs, int maxDelayMs, Clock now, Draw draw)
    : minDelayMs_(minDelayMs)
    , maxDelayMs_(maxDelayMs)
    , now_(now ? std::move(now) : Clock(&std::chrono::steady_clock::now))
    , draw_(std::move(draw))
    , ceilingMs_(minDelayMs) {
    if (!draw_) {
        // Full jitter: a fleet that lost its broker together does not come back in step.
        auto random = std::make_shared<std::minstd_rand>(std::random_device{}());
        draw_ = [random](int ceilingMs) {
            return std::uniform_int_distribution<int>(0, ceilingMs)(*random);
        };
    }
}

void ReconnectPolicy::Attempt() {
    attempts_.push_back(now_());
    if (attempts_.size() > kMaxAttemptsPerMinute) {
        attempts_.pop_front();
    }
}

bool ReconnectPolicy::Up() {
    upSince_ = now_();
    const bool report = !everUp_ || (inOutage_ && !returned_);
    everUp_ = true;
    returned_ = returned_ || inOutage_;
    return report;
}

ReconnectPolicy::Down ReconnectPolicy::LinkDown() {
    const TimePoint now = now_();
    const bool wasUp = upSince_.has_value();
    if (wasUp && now - *upSince_ >= kStableAfter) {
        ceilingMs_ = minDelayMs_;
        inOutage_ = false;
    }
    upSince_.reset();
    bool report = false;
    if (!inOutage_) {
        inOutage_ = true;
        returned_ = false;
        returnLostTold_ = false;
        report = true;
    } else if (wasUp && returned_ && !returnLostTold_) {
        returnLostTold_ = true;
        report = true;
    }
    auto wait = std::chrono::milliseconds(draw_(ceilingMs_));
    ceilingMs_ = std::min(ceilingMs_ * 2, maxDelayMs_);
    if (attempts_.size() == kMaxAttemptsPerMinute) {
        // The next attempt would be the thirteenth within a minute.
        const auto allowed = std::chrono::ceil<std::chrono::milliseconds>(
            attempts_.front() + std::chrono::minutes(1) - now);
        wait = std::max(wait, allowed);
    }
    return {wait, report};
}

}  // namespace vi_connector
