#ifndef BACKEND_SIM_CHALLENGE_REGISTRY_HPP
#define BACKEND_SIM_CHALLENGE_REGISTRY_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace backend_sim {

/// The challenges the backend handed out, so that a download can be matched
/// to one it issued recently and a container is made at most once per
/// challenge. Thread-safe.
class ChallengeRegistry {
public:
    using Clock = std::chrono::steady_clock;

    enum class Status { kUnknown, kExpired, kAlreadyUsed, kFresh };

    /// What a download made of the challenge: for whom and for which counter.
    struct Use {
        std::string vin;
        std::uint16_t trainingCounter = 0;
    };

    /// At most `capacity` challenges are remembered; the oldest go first.
    ChallengeRegistry(std::chrono::seconds lifetime, std::size_t capacity = 10000);

    /// Remembers `challenge` (upper-case hex) as issued at `now`.
    void Issue(const std::string& challenge, Clock::time_point now);
    Status Check(const std::string& challenge, Clock::time_point now) const;
    /// Marks a fresh challenge as used by a download; false when it was not fresh.
    bool MarkUsed(const std::string& challenge, const Use& use, Clock::time_point now);
    /// The download that used the challenge, if any.
    std::optional<Use> UseOf(const std::string& challenge) const;

private:
    struct Entry {
        Clock::time_point issuedAt;
        std::uint64_t sequence = 0;
        std::optional<Use> use;
    };

    Status CheckLocked(const std::string& challenge, Clock::time_point now) const;

    const std::chrono::seconds lifetime_;
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::map<std::string, Entry> entries_;
    std::map<std::uint64_t, std::string> byAge_;
    std::uint64_t nextSequence_ = 0;
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_CHALLENGE_REGISTRY_HPP
