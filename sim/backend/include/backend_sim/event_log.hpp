#ifndef BACKEND_SIM_EVENT_LOG_HPP
#define BACKEND_SIM_EVENT_LOG_HPP

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "sim_common/json.hpp"
#include "unique_fd/unique_fd.hpp"

namespace backend_sim {

/// The record of every exchange: one JSON object per line, appended to a
/// file that a test or a person can follow while the simulator runs.
class EventLog {
public:
    EventLog() = default;
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Appends to `path` (created if missing). Without a call to Open,
    /// events are counted but written nowhere.
    bool Open(const std::string& path, std::string& error);

    /// A new event, already holding "time" (UTC, milliseconds) and "seq".
    sim_common::Json Begin();
    /// Writes the event as one line with one write call.
    void Write(const sim_common::Json& event);

    std::uint64_t Count() const { return sequence_.load(); }

    /// Counts a TCP connection accepted, whether or not it brought a request
    /// (a reachability probe does not).
    void ConnectionAccepted() { connections_.fetch_add(1); }
    std::uint64_t Connections() const { return connections_.load(); }

private:
    std::mutex mutex_;
    unique_fd::UniqueFd fd_;
    std::atomic<std::uint64_t> sequence_{0};
    std::atomic<std::uint64_t> connections_{0};
};

/// "2026-11-22T10:15:02.123Z" for now.
std::string UtcTimestamp();

}  // namespace backend_sim

#endif  // BACKEND_SIM_EVENT_LOG_HPP
