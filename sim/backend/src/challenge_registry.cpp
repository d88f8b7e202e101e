#include "backend_sim/challenge_registry.hpp"

namespace backend_sim {

ChallengeRegistry::ChallengeRegistry(std::chrono::seconds lifetime, std::size_t capacity)
    : lifetime_(lifetime), capacity_(capacity == 0 ? 1 : capacity) {}

void ChallengeRegistry::Issue(const std::string& challenge, Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto existing = entries_.find(challenge);
    if (existing != entries_.end()) {
        byAge_.erase(existing->second.sequence);
        entries_.erase(existing);
    }
    while (entries_.size() >= capacity_) {
        const auto oldest = byAge_.begin();
        entries_.erase(oldest->second);
        byAge_.erase(oldest);
    }
    const auto sequence = nextSequence_++;
    entries_[challenge] = Entry{now, sequence, std::nullopt};
    byAge_[sequence] = challenge;
}

ChallengeRegistry::Status ChallengeRegistry::CheckLocked(const std::string& challenge,
                                                         Clock::time_point now) const {
    const auto it = entries_.find(challenge);
    if (it == entries_.end()) {
        return Status::kUnknown;
    }
    if (it->second.use) {
        return Status::kAlreadyUsed;
    }
    if (now - it->second.issuedAt > lifetime_) {
        return Status::kExpired;
    }
    return Status::kFresh;
}

ChallengeRegistry::Status ChallengeRegistry::Check(const std::string& challenge,
                                                   Clock::time_point now) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return CheckLocked(challenge, now);
}

bool ChallengeRegistry::MarkUsed(const std::string& challenge, const Use& use,
                                 Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (CheckLocked(challenge, now) != Status::kFresh) {
        return false;
    }
    entries_[challenge].use = use;
    return true;
}

std::optional<ChallengeRegistry::Use> ChallengeRegistry::UseOf(const std::string& challenge) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto it = entries_.find(challenge);
    return it == entries_.end() ? std::nullopt : it->second.use;
}

}  // namespace backend_sim
