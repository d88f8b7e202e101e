#include "clampcontrolclient/clamp_control_client.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>

#include "clamp_control_names.hpp"
#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"
#include "idl/bus_loop.hpp"
#include "idl/clamp_control_proxy.h"
#include "idl/sender_filter.hpp"

namespace clampcontrolclient {
namespace {

using csc_logging::CSCLogging;

// A service that hangs must not hold the caller (the client's main loop) for long.
constexpr auto kCallTimeout = std::chrono::seconds(5);

// Errors that only say the service is not there (now): a refusal, not a fault.
bool MeansServiceAbsent(const std::string& errorName) {
    static const std::set<std::string> kAbsent = {
        "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.NoReply",        "org.freedesktop.DBus.Error.Timeout",
        "org.freedesktop.DBus.Error.TimedOut",       "org.freedesktop.DBus.Error.Disconnected"};
    return kAbsent.count(errorName) != 0;
}

}  // namespace

// Who may speak for the service: its current unique owner. Loop thread only.
struct ServiceSender {
    idl::SenderFilter filter{"ClampControlClient"};
    std::string owner;
};

class ClampControlClient::ServiceProxy final
    : public sdbus::ProxyInterfaces<clampcontrol::ClampControl_proxy> {
public:
    ServiceProxy(sdbus::IConnection& connection, ClampControlClient& owner, ServiceSender& sender)
        : ProxyInterfaces(connection, names::kBusName, names::kObjectPath)
        , owner_(owner)
        , sender_(sender) {
        registerProxy();
    }
    ~ServiceProxy() { unregisterProxy(); }

    std::string CallSubscribe() {
        std::string id;
        getProxy()
            .callMethod("Subscribe")
            .onInterface(INTERFACE_NAME)
            .withTimeout(kCallTimeout)
            .storeResultsTo(id);
        return id;
    }

private:
    void onSubscribed(const std::string& /*subscriptionId*/, const bool& clamp15On) override {
        if (FromService()) {
            owner_.ReportSubscribed();
            owner_.ReportState(clamp15On);
        }
    }
    void onClampStateChanged(const bool& clamp15On) override {
        if (FromService()) {
            owner_.ReportState(clamp15On);
        }
    }

    bool FromService() {
        const sdbus::Message* message = getProxy().getCurrentlyProcessedMessage();
        return message != nullptr && sender_.filter.Accept(*message, sender_.owner);
    }

    ClampControlClient& owner_;
    ServiceSender& sender_;
};

struct ClampControlClient::Bus {
    explicit Bus(ClampControlClient& owner)
        : loop("ClampControlClient", idl::BusAddress(),
               idl::BusLoop::Callbacks{[this, &owner](sdbus::IConnection& c) { Connect(owner, c); },
                                       [this, &owner] { Lose(owner); }}) {}

    // Loop thread only: what lives on the current connection.
    void Connect(ClampControlClient& owner, sdbus::IConnection& connection) {
        // Watch first, then ask: a change in between is not lost, only reported twice
        // (and the second report is dropped as no change).
        ownerWatch = connection.addMatch(
            std::string("type='signal',sender='") + names::kDbusName + "',interface='" +
                names::kDbusInterface + "',member='NameOwnerChanged',arg0='" + names::kBusName +
                "'",
            [this, &owner](sdbus::Message& message) {
                if (!sender.filter.Accept(message, idl::kBusDaemonName)) {
                    return;
                }
                std::string name;
                std::string oldOwner;
                std::string newOwner;
                message >> name >> oldOwner >> newOwner;
                sender.owner = newOwner;
                if (!oldOwner.empty() && !newOwner.empty()) {
                    owner.ReportConnection(
                        false);  // handed over: the old owner's subscriptions are gone
                }
                owner.ReportConnection(!newOwner.empty());
            });
        service = std::make_unique<ServiceProxy>(connection, owner, sender);
        sender.owner.clear();
        auto dbus = sdbus::createProxy(connection, names::kDbusName, names::kDbusPath);
        try {
            dbus->callMethod("GetNameOwner")
                .onInterface(names::kDbusInterface)
                .withArguments(std::string(names::kBusName))
                .storeResultsTo(sender.owner);
        } catch (const sdbus::Error& error) {
            if (error.getName() != "org.freedesktop.DBus.Error.NameHasNoOwner") {
                throw;
            }
        }
        owner.ReportConnection(!sender.owner.empty());
    }

    void Lose(ClampControlClient& owner) {
        service.reset();
        ownerWatch.reset();
        if (!stopping) {
            // Whatever we subscribed to went with the bus; a new subscription follows "connected".
            owner.ReportConnection(false);
        }
    }

    std::atomic<bool> stopping{false};
    ServiceSender sender;
    sdbus::Slot ownerWatch;
    std::unique_ptr<ServiceProxy> service;
    // Last: its thread ends before the members above go.
    idl::BusLoop loop;
};

ClampControlClient::ClampControlClient() = default;

ClampControlClient::~ClampControlClient() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callback_ = nullptr;
    }
    ClampControlClient::Stop();
}

void ClampControlClient::RegisterCallback(ClampControlCallbackIf* callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    callback_ = callback;
}

void ClampControlClient::Start() {
    if (started_) {
        return;
    }
    started_ = true;
    bus_ = std::make_unique<Bus>(*this);
    // The loop tries the bus before its first task: when this returns, the
    // state of the service has been reported, "not connected" included.
    bus_->loop.Execute([this](sdbus::IConnection* connection) {
        if (connection == nullptr) {
            ReportConnection(false);
        }
    });
}

std::string ClampControlClient::Subscribe() {
    if (!started_) {
        throw std::logic_error("ClampControlClient: Subscribe() before Start()");
    }
    std::string id;
    bool haveBus = false;
    try {
        bus_->loop.Execute([this, &id, &haveBus](sdbus::IConnection* connection) {
            if (connection == nullptr || !bus_->service) {
                return;
            }
            haveBus = true;
            id = bus_->service->CallSubscribe();
        });
    } catch (const sdbus::Error& error) {
        if (!MeansServiceAbsent(error.getName())) {
            throw;
        }
        CSCLogging::Warning("ClampControlClient: clamp control service not available: " +
                            error.getName());
        return {};
    }
    if (!haveBus) {
        CSCLogging::Warning("ClampControlClient: cannot subscribe without a bus connection");
    } else if (id.empty()) {
        CSCLogging::Warning(
            "ClampControlClient: the clamp control service refused the "
            "subscription");
    }
    return id;
}

void ClampControlClient::Stop() {
    if (bus_) {
        bus_->stopping = true;
        bus_->loop.Stop();
        bus_.reset();
    }
    started_ = false;
    std::lock_guard<std::mutex> lock(mutex_);
    lastConnected_.reset();  // a new Start() reports afresh
}

void ClampControlClient::ReportConnection(bool connected) {
    ClampControlCallbackIf* callback = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (lastConnected_ == connected) {
            return;
        }
        lastConnected_ = connected;
        callback = callback_;
    }
    if (callback != nullptr) {
        callback->ConnectionStateNotification(connected);
    }
}

void ClampControlClient::ReportSubscribed() {
    if (ClampControlCallbackIf* callback = Callback()) {
        callback->ClampControlSubscribedNotification();
    }
}

void ClampControlClient::ReportState(bool clamp15On) {
    if (ClampControlCallbackIf* callback = Callback()) {
        callback->ClampControlNotification(clamp15On);
    }
}

ClampControlCallbackIf* ClampControlClient::Callback() {
    std::lock_guard<std::mutex> lock(mutex_);
    return callback_;
}

}  // namespace clampcontrolclient
