#include "service_status.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "csc_logging/story_line.hpp"
#include "unique_fd/unique_fd.hpp"
#include "utc_time.hpp"

namespace ara::exec {
namespace {

using csc_logging::StoryEvent;

// sd_notify() waits while the manager's queue is full; here, under the logging
// lock, that would stall every thread that logs. So the datagram goes out only
// if it can go at once. Abstract socket names start with '@'.
bool SendWithoutWaiting(const std::string& message) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = path == nullptr ? 0 : std::strlen(path);
    if (length == 0 || length >= sizeof(address.sun_path) || (path[0] != '/' && path[0] != '@')) {
        return false;
    }
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const unique_fd::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return false;
    }
    const auto sent =
        ::sendto(fd.Get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    return sent == static_cast<ssize_t>(message.size());
}

}  // namespace

ServiceStatus::ServiceStatus() {
    Notify();
    // Debug too: the connector reports a link that comes back within an outage
    // it already warned about at debug level only.
    csc_logging::AddObserver(this, csc_logging::LogLevel::kDebug);
}

ServiceStatus::~ServiceStatus() {
    csc_logging::RemoveObserver(this);
}

void ServiceStatus::Write(const csc_logging::LogRecord& record) {
    const auto story = csc_logging::FindStoryLine(record.text);
    if (!story) {
        if (sent_ != status_) {
            Notify();  // the queue was full last time
        }
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
            break;
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
    status_ = std::move(status);
    // A status that cannot go now goes with the next record.
    if (status_ != sent_ && SendWithoutWaiting(status_)) {
        sent_ = status_;
    }
}

}  // namespace ara::exec
