#include "csa_common/clamp_control_handler.hpp"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <utility>

#include "csc_logging/csc_logging.hpp"

namespace csa_common {
namespace {

using csc_logging::CSCLogging;

constexpr const char* kClampName = "Clamp15";

}  // namespace

ClampControlHandler::ClampControlHandler(ClampControlHandlerCbIf* callback)
    : ClampControlHandler(callback, std::make_shared<clampcontrolclient::ClampControlClient>()) {}

ClampControlHandler::ClampControlHandler(
    ClampControlHandlerCbIf* callback,
    std::shared_ptr<clampcontrolclient::ClampControlClient> client,
    std::function<void()> pauseBeforeRetry)
    : clampControlClient_(std::move(client))
    , callback_(callback)
    , pauseBeforeRetry_(std::move(pauseBeforeRetry)) {}

ClampControlHandler::~ClampControlHandler() {
    keepSubscribing_ = false;
    if (retryThread_ && retryThread_->joinable()) {
        retryThread_->join();
    }
    retryThread_.reset();
}

bool ClampControlHandler::ClampControlInit() {
    clampControlClient_->RegisterCallback(this);
    clampControlClient_->Start();
    return true;
}

bool ClampControlHandler::Subscribe() {
    try {
        return SubscribeInternal();
    } catch (const std::exception& exception) {
        CSCLogging::Warning(std::string("ClampControlHandler: Exception while subscribing: ") +
                            exception.what());
        return false;
    }
}

bool ClampControlHandler::SubscribeNB() {
    // One retry thread at a time: an earlier one is waited for.
    if (retryThread_ && retryThread_->joinable()) {
        retryThread_->join();
    }
    retryThread_.reset();
    keepSubscribing_ = true;
    retryThread_ = std::make_unique<std::thread>([this] { SubscribeThread(); });
    return true;
}

bool ClampControlHandler::SubscribeInternal() {
    subscriptionId_ = clampControlClient_->Subscribe();
    if (!subscriptionId_.empty()) {
        CSCLogging::Info("ClampControlHandler: Subscribed to Clamp Control");
        return true;
    }
    CSCLogging::Error("ClampControlHandler: FAILED to subscribe to Clamp Control!");
    return false;
}

void ClampControlHandler::SubscribeThread() {
    try {
        while (keepSubscribing_) {
            if (SubscribeInternal()) {
                CSCLogging::Info("ClampControlHandlerNB: Subscribed to Clamp Control");
                keepSubscribing_ = false;
                return;
            }
            CSCLogging::Error("ClampControlHandlerNB: FAILED to subscribe to Clamp Control!");
            pauseBeforeRetry_();
            if (!keepSubscribing_) {
                return;
            }
        }
    } catch (const std::exception& exception) {
        CSCLogging::Warning(std::string("ClampControlHandlerNB: Exception while subscribing: ") +
                            exception.what());
        keepSubscribing_ = false;
    }
}

void ClampControlHandler::PauseBeforeRetry() {
    timespec remaining{0, 500000000};
    timespec request{};
    do {
        request = remaining;
    } while (nanosleep(&request, &remaining) == -1 && errno == EINTR);
}

void ClampControlHandler::ConnectionStateNotification(bool connected) {
    char value[4];
    std::snprintf(value, sizeof(value), "%d", connected ? 1 : 0);
    CSCLogging::Debug(
        std::string("ClampControlHandler: Clamp Control Service connection state has changed to ") +
        value);
    if (callback_ != nullptr) {
        callback_->ClampControlConnectionStateChangeCb(connected);
    }
}

void ClampControlHandler::ClampControlNotification(bool state) {
    CSCLogging::Debug("ClampControlHandler: Received a Clamp Control state notification");
    clampState_ = state;
    if (callback_ != nullptr) {
        callback_->ClampStateChangeCb(kClampName, state);
    }
}

void ClampControlHandler::ClampControlSubscribedNotification() {
    CSCLogging::Debug("ClampControlHandler: Received a Clamp Control subscribed notification");
    if (callback_ != nullptr) {
        callback_->ClampSubscribedCb();
    }
}

}  // namespace csa_common
