#include "backend_sim/fault_plan.hpp"

#include "sim_common/parse_integer.hpp"

namespace backend_sim {
namespace {

struct KindInfo {
    FaultKind kind;
    const char* name;
    bool takesArgument;
};

constexpr KindInfo kKinds[] = {
    {FaultKind::kStatus, "status", true},
    {FaultKind::kEmptyBody, "empty-body", false},
    {FaultKind::kGarbageBody, "garbage-body", false},
    {FaultKind::kDelay, "delay", true},
    {FaultKind::kContinue, "continue", false},
    {FaultKind::kKeepOpen, "keep-open", false},
    {FaultKind::kClose, "close", false},
    {FaultKind::kHang, "hang", false},
    {FaultKind::kNoDigits, "no-digits", false},
    {FaultKind::kBadMac, "bad-mac", false},
    {FaultKind::kFlood, "flood", false},
    {FaultKind::kTrickle, "trickle", true},
};

const KindInfo& InfoOf(FaultKind kind) {
    for (const auto& info : kKinds) {
        if (info.kind == kind) {
            return info;
        }
    }
    return kKinds[0];
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const auto end = text.find(separator, start);
        parts.push_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return parts;
        }
        start = end + 1;
    }
}

std::string KindList() {
    std::string list;
    for (const auto& info : kKinds) {
        list += list.empty() ? "" : ", ";
        list += info.name;
    }
    return list;
}

}  // namespace

const char* ExchangeName(Exchange exchange) {
    switch (exchange) {
        case Exchange::kChallenge:
            return "challenge";
        case Exchange::kDownload:
            return "download";
        case Exchange::kFeedback:
            return "feedback";
    }
    return "?";
}

std::optional<Exchange> ExchangeFromName(std::string_view name) {
    for (const auto exchange : {Exchange::kChallenge, Exchange::kDownload, Exchange::kFeedback}) {
        if (name == ExchangeName(exchange)) {
            return exchange;
        }
    }
    return std::nullopt;
}

std::string Fault::Describe() const {
    const auto& info = InfoOf(kind);
    std::string text = info.name;
    if (info.takesArgument) {
        text += ":" + std::to_string(argument);
    }
    return text;
}

std::optional<Fault> FaultPlan::Parse(Exchange exchange, std::string_view definition,
                                      std::string& error) {
    const auto parts = Split(definition, ':');
    const KindInfo* info = nullptr;
    for (const auto& candidate : kKinds) {
        if (parts[0] == candidate.name) {
            info = &candidate;
        }
    }
    if (info == nullptr) {
        error = "unknown fault '" + std::string(parts[0]) + "' (one of " + KindList() + ")";
        return std::nullopt;
    }
    Fault fault;
    fault.kind = info->kind;
    std::size_t next = 1;
    if (info->takesArgument) {
        if (parts.size() < 2) {
            error = "fault '" + std::string(parts[0]) + "' needs a value, e.g. " +
                    (fault.kind == FaultKind::kStatus ? "status:500" : "delay:2000");
            return std::nullopt;
        }
        const auto value = fault.kind == FaultKind::kStatus
                               ? sim_common::ParseInteger(parts[1], 100, 999)
                               : sim_common::ParseInteger(parts[1], 0, 3600000);
        if (!value) {
            error = "bad value '" + std::string(parts[1]) + "' for fault '" +
                    std::string(parts[0]) + "' (" +
                    (fault.kind == FaultKind::kStatus ? "a status code 100-999"
                                                      : "milliseconds 0-3600000") +
                    ")";
            return std::nullopt;
        }
        fault.argument = static_cast<int>(*value);
        next = 2;
    }
    if (parts.size() > next + 1) {
        error = "too many ':' parts in fault '" + std::string(definition) + "'";
        return std::nullopt;
    }
    if (parts.size() == next + 1) {
        if (parts[next] == "*") {
            fault.count.reset();
        } else if (const auto count = sim_common::ParseInteger(parts[next], 1, 1000000)) {
            fault.count = static_cast<std::uint32_t>(*count);
        } else {
            error = "bad count '" + std::string(parts[next]) + "' in fault '" +
                    std::string(definition) + "' (a number from 1 or *)";
            return std::nullopt;
        }
    }
    if (fault.kind == FaultKind::kBadMac && exchange != Exchange::kDownload) {
        error = "fault 'bad-mac' applies to the download exchange only";
        return std::nullopt;
    }
    return fault;
}

bool FaultPlan::Add(std::string_view definition, std::string& error) {
    const auto equals = definition.find('=');
    if (equals == std::string_view::npos) {
        error = "fault '" + std::string(definition) +
                "' is not EXCHANGE=KIND[:ARG][:COUNT] (exchanges: challenge, download, feedback)";
        return false;
    }
    const auto exchange = ExchangeFromName(definition.substr(0, equals));
    if (!exchange) {
        error = "unknown exchange '" + std::string(definition.substr(0, equals)) +
                "' (challenge, download or feedback)";
        return false;
    }
    const auto fault = Parse(*exchange, definition.substr(equals + 1), error);
    if (!fault) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({*exchange, *fault});
    return true;
}

std::optional<Fault> FaultPlan::Take(Exchange exchange) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->exchange != exchange) {
            continue;
        }
        Fault taken = it->fault;
        if (it->fault.count) {
            if (--*it->fault.count == 0) {
                entries_.erase(it);
            }
        }
        return taken;
    }
    return std::nullopt;
}

void FaultPlan::Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

std::vector<std::string> FaultPlan::Pending() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> pending;
    for (const auto& entry : entries_) {
        pending.push_back(std::string(ExchangeName(entry.exchange)) + "=" + entry.fault.Describe() +
                          ":" + (entry.fault.count ? std::to_string(*entry.fault.count) : "*"));
    }
    return pending;
}

}  // namespace backend_sim
