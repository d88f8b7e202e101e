#ifndef LIFECYCLE_SERVICE_STATUS_HPP
#define LIFECYCLE_SERVICE_STATUS_HPP

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "csc_logging/log_sink.hpp"

namespace ara::exec {

/// Keeps systemd's STATUS= line (shown by systemctl status) saying what the
/// client does and how its last update ended, for example
/// "Ready; last update 2026-11-24 14:21:48 UTC: finished". The client's story
/// lines are fixed texts, so the status is read off them as they are logged.
class ServiceStatus : public csc_logging::LogSink {
public:
    ServiceStatus();
    ~ServiceStatus() override;
    ServiceStatus(const ServiceStatus&) = delete;
    ServiceStatus& operator=(const ServiceStatus&) = delete;

    void Write(const csc_logging::LogRecord& record) override;

private:
    enum class Activity : std::uint8_t { kIdle, kPending, kUpdating, kStopping };

    void EndUpdate(std::chrono::system_clock::time_point end);
    void Notify();

    Activity activity_ = Activity::kIdle;
    bool brokerConnected_ = false;
    bool ready_ = false;
    // The update under way.
    std::string_view failure_;
    bool finished_ = false;
    bool feedbackStarted_ = false;
    bool feedbackFailed_ = false;
    // How and when the last update ended; empty before the first.
    std::string lastUpdate_;
    std::string status_;
    std::string sent_;
};

}  // namespace ara::exec

#endif  // LIFECYCLE_SERVICE_STATUS_HPP
