#include "clampcontrolclient/clamp_control_client.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <set>
#include <stdexcept>

#include "clamp_control_names.hpp"
#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"
#include "idl/clamp_control_proxy.h"

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

class ClampControlClient::ServiceProxy final
    : public sdbus::ProxyInterfaces<clampcontrol::ClampControl_proxy> {
public:
    ServiceProxy(sdbus::IConnection& connection, ClampControlClient& owner)
        : ProxyInterfaces(connection, names::kBusName, names::kObjectPath), owner_(owner) {
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
        owner_.ReportSubscribed();
        owner_.ReportState(clamp15On);
    }
    void onClampStateChanged(const bool& clamp15On) override { owner_.ReportState(clamp15On); }

    ClampControlClient& owner_;
};

struct ClampControlClient::Bus {
    std::unique_ptr<sdbus::IConnection> connection;
    sdbus::Slot ownerWatch;
    std::unique_ptr<ServiceProxy> service;
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
    bool present = false;
    try {
        auto bus = std::make_unique<Bus>();
        bus->connection = idl::OpenBusConnection();
        // Watch first, then ask: a change in between is not lost, only reported twice
        // (and the second report is dropped as no change).
        bus->ownerWatch = bus->connection->addMatch(
            std::string("type='signal',sender='") + names::kDbusName + "',interface='" +
                names::kDbusInterface + "',member='NameOwnerChanged',arg0='" + names::kBusName +
                "'",
            [this](sdbus::Message& message) {
                std::string name;
                std::string oldOwner;
                std::string newOwner;
                message >> name >> oldOwner >> newOwner;
                if (!oldOwner.empty() && !newOwner.empty()) {
                    ReportConnection(false);  // handed over: the old owner's subscriptions are gone
                }
                ReportConnection(!newOwner.empty());
            });
        bus->service = std::make_unique<ServiceProxy>(*bus->connection, *this);
        auto dbus = sdbus::createProxy(*bus->connection, names::kDbusName, names::kDbusPath);
        dbus->callMethod("NameHasOwner")
            .onInterface(names::kDbusInterface)
            .withArguments(std::string(names::kBusName))
            .storeResultsTo(present);
        bus_ = std::move(bus);
    } catch (const sdbus::Error& error) {
        CSCLogging::Error("ClampControlClient: cannot use the bus " + idl::BusAddress() + ": " +
                          error.what());
        ReportConnection(false);
        return;
    }
    ReportConnection(present);
    bus_->connection->enterEventLoopAsync();
}

std::string ClampControlClient::Subscribe() {
    if (!started_) {
        throw std::logic_error("ClampControlClient: Subscribe() before Start()");
    }
    if (!bus_) {
        CSCLogging::Warning("ClampControlClient: cannot subscribe without a bus connection");
        return {};
    }
    try {
        std::string id = bus_->service->CallSubscribe();
        if (id.empty()) {
            CSCLogging::Warning(
                "ClampControlClient: the clamp control service refused the "
                "subscription");
        }
        return id;
    } catch (const sdbus::Error& error) {
        if (!MeansServiceAbsent(error.getName())) {
            throw;
        }
        CSCLogging::Warning("ClampControlClient: clamp control service not available: " +
                            error.getName());
        return {};
    }
}

void ClampControlClient::Stop() {
    if (bus_) {
        bus_->connection->leaveEventLoop();
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
