#include "service_status.hpp"

#include <systemd/sd-daemon.h>

#include "csc_logging/story_line.hpp"
#include "utc_time.hpp"

namespace ara::exec {

using csc_logging::StoryEvent;

ServiceStatus::ServiceStatus() {
    Notify();
    // Story lines are info, the broker's warnings; what is below never matters here.
    csc_logging::AddObserver(this, csc_logging::LogLevel::kInfo);
}

ServiceStatus::~ServiceStatus() {
    csc_logging::RemoveObserver(this);
}

void ServiceStatus::Write(const csc_logging::LogRecord& record) {
    const auto story = csc_logging::FindStoryLine(record.text);
    if (!story) {
        return;
    }
    switch (story->event) {
        case StoryEvent::kBrokerConnected:
            brokerConnected_ = true;
            break;
        case StoryEvent::kBrokerLost:
            brokerConnected_ = false;
            break;
        case StoryEvent::kReady:
            ready_ = true;
            break;
        case StoryEvent::kUpdatePending:
            if (activity_ == Activity::kIdle) {
                activity_ = Activity::kPending;
            }
            break;
        case StoryEvent::kUpdateStarted:
            activity_ = Activity::kUpdating;
            failure_ = {};
            finished_ = feedbackStarted_ = feedbackFailed_ = false;
            break;
        case StoryEvent::kUpdateFinished:
            finished_ = true;
            break;
        case StoryEvent::kUpdateFailed:
            // Without a token or URL the feedback gives up with no line of its own.
            if (feedbackStarted_) {
                feedbackFailed_ = true;
                EndUpdate(record.time);
            } else if (failure_.empty()) {
                failure_ = story->failure;
            }
            break;
        case StoryEvent::kFeedbackStarted:
            feedbackStarted_ = true;
            break;
        case StoryEvent::kFeedbackSent:
        case StoryEvent::kFeedbackFailed:
            feedbackFailed_ = story->event == StoryEvent::kFeedbackFailed;
            EndUpdate(record.time);
            break;
        case StoryEvent::kTerminated:
            activity_ = Activity::kStopping;
            break;
        case StoryEvent::kCertificateValid:
            return;
    }
    Notify();
}

void ServiceStatus::EndUpdate(std::chrono::system_clock::time_point end) {
    if (activity_ != Activity::kUpdating) {
        return;
    }
    std::string outcome = finished_          ? "finished"
                          : failure_.empty() ? "failed"
                                             : "failed (" + std::string(failure_) + ")";
    if (feedbackFailed_) {
        outcome += ", feedback not sent";
    }
    lastUpdate_ = "last update " + UtcTime(end) + ": " + outcome;
    activity_ = Activity::kIdle;
    feedbackStarted_ = false;
}

void ServiceStatus::Notify() {
    std::string status = "STATUS=";
    switch (activity_) {
        case Activity::kStopping:
            status += "Stopping";
            break;
        case Activity::kUpdating:
            status += "Updating";
            break;
        case Activity::kPending:
            status += "Update waiting for the backend";
            break;
        case Activity::kIdle:
            status += !brokerConnected_ ? "Waiting for the broker"
                      : ready_          ? "Ready"
                                        : "Subscribing";
            break;
    }
    if (!lastUpdate_.empty()) {
        status += "; " + lastUpdate_;
    }
    if (status != sent_) {
        // Runs under the logging lock: a failure cannot be logged, and READY=1
        // and WATCHDOG=1 report a missing socket already.
        (void)sd_notify(0, status.c_str());
        sent_ = std::move(status);
    }
}

}  // namespace ara::exec
