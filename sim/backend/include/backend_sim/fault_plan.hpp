#ifndef BACKEND_SIM_FAULT_PLAN_HPP
#define BACKEND_SIM_FAULT_PLAN_HPP

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend_sim {

enum class Exchange { kChallenge, kDownload, kFeedback };

/// "challenge", "download", "feedback".
const char* ExchangeName(Exchange exchange);
std::optional<Exchange> ExchangeFromName(std::string_view name);

enum class FaultKind {
    /// Answer with the given status code and a short text body.
    kStatus,
    /// 200 with the exchange's content type and no body.
    kEmptyBody,
    /// 200 with a body that does not parse as the response message.
    kGarbageBody,
    /// Wait the given milliseconds, then answer normally.
    kDelay,
    /// "100 Continue" first, then the normal answer.
    kContinue,
    /// Normal answer, then the connection stays open until the peer closes it.
    kKeepOpen,
    /// Read the request and close without answering.
    kClose,
    /// Read the request and never answer; close when the peer does.
    kHang,
    /// A status line with no digits in it.
    kNoDigits,
    /// Download only: a container whose MAC does not verify.
    kBadMac,
    /// A 200 header, then body bytes as fast as the peer reads, until it closes.
    kFlood,
    /// A 200 header, then one body byte every given milliseconds, until the peer closes.
    kTrickle,
};

/// One injected fault, parsed from "KIND[:ARG][:COUNT]" (status, delay and
/// trickle take an argument, the others none). COUNT is how many of the next
/// requests of the exchange it hits (default 1), or "*" for every one.
struct Fault {
    FaultKind kind = FaultKind::kStatus;
    int argument = 0;
    /// Remaining hits; nothing = unlimited.
    std::optional<std::uint32_t> count = 1;

    /// The fault as written, without its count, e.g. "status:500".
    std::string Describe() const;
};

/// Faults waiting per exchange, first in first out. Thread-safe.
class FaultPlan {
public:
    /// Adds "EXCHANGE=KIND[:ARG][:COUNT]". False with a one-line reason in `error`.
    bool Add(std::string_view definition, std::string& error);
    /// Takes one hit of the first fault waiting for `exchange`, if any.
    std::optional<Fault> Take(Exchange exchange);
    void Clear();
    /// The faults still waiting, e.g. "download=status:500:2".
    std::vector<std::string> Pending() const;

    /// Parses "KIND[:ARG][:COUNT]" for `exchange`.
    static std::optional<Fault> Parse(Exchange exchange, std::string_view definition,
                                      std::string& error);

private:
    struct Entry {
        Exchange exchange;
        Fault fault;
    };

    mutable std::mutex mutex_;
    std::deque<Entry> entries_;
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_FAULT_PLAN_HPP
