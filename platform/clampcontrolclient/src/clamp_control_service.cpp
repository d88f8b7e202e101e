#include "clampcontrolclient/clamp_control_service.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "clamp_control_names.hpp"
#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"
#include "idl/clamp_control_adaptor.h"

namespace clampcontrolclient {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

// A base, so that the connection is made before the adaptor's object and
// outlives it.
struct ConnectionHolder {
    std::unique_ptr<sdbus::IConnection> connection_;
};

}  // namespace

class ClampControlService::Impl final
    : private ConnectionHolder,
      public sdbus::AdaptorInterfaces<clampcontrol::ClampControl_adaptor> {
public:
    Impl(std::unique_ptr<sdbus::IConnection> connection, bool clamp15On)
        : ConnectionHolder{std::move(connection)}
        , AdaptorInterfaces(*connection_, names::kObjectPath)
        , clamp15On_(clamp15On) {
        registerAdaptor();
        leaverWatch_ = connection_->addMatch(
            std::string("type='signal',sender='") + names::kDbusName + "',interface='" +
                names::kDbusInterface + "',member='NameOwnerChanged'",
            [this](sdbus::Message& message) {
                std::string name;
                std::string oldOwner;
                std::string newOwner;
                message >> name >> oldOwner >> newOwner;
                if (!name.empty() && name[0] == ':' && newOwner.empty()) {
                    Forget(name);
                }
            });
        connection_->enterEventLoopAsync();
    }

    ~Impl() {
        try {
            StopOffer();
        } catch (const sdbus::Error& error) {
            CSCLogging::Warning(std::string("ClampControlService: ") + error.what());
        }
        connection_->leaveEventLoop();
        leaverWatch_.reset();
        unregisterAdaptor();
    }

    void Offer() {
        std::lock_guard<std::mutex> offering(offerMutex_);
        if (IsOffered()) {
            return;
        }
        connection_->requestName(names::kBusName);
        std::lock_guard<std::mutex> lock(mutex_);
        offered_ = true;
    }

    void StopOffer() {
        std::lock_guard<std::mutex> offering(offerMutex_);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!offered_) {
                return;
            }
            offered_ = false;
            subscribers_.clear();
        }
        connection_->releaseName(names::kBusName);
    }

    bool IsOffered() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return offered_;
    }

    void SetClampState(bool clamp15On) {
        // Held while sending, so changes leave in the order they were made.
        std::lock_guard<std::mutex> sending(sendMutex_);
        std::set<std::string> destinations;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (clamp15On_ == clamp15On) {
                return;
            }
            clamp15On_ = clamp15On;
            for (const auto& subscriber : subscribers_) {
                destinations.insert(subscriber.second);
            }
        }
        CSCLogging::Info(CSCLogEntry()
                         << "ClampControlService: Clamp 15 " << (clamp15On ? "on" : "off")
                         << ", telling " << destinations.size() << " subscriber(s)");
        for (const auto& destination : destinations) {
            auto signal = getObject().createSignal(INTERFACE_NAME, "ClampStateChanged");
            signal << clamp15On;
            Send(signal, destination);
        }
    }

    bool ClampState() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return clamp15On_;
    }

    void SetAcceptSubscriptions(bool accept) {
        std::lock_guard<std::mutex> lock(mutex_);
        accept_ = accept;
    }

    std::size_t SubscriberCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscribers_.size();
    }

private:
    void Subscribe(sdbus::Result<std::string>&& result) override {
        const std::string subscriber = getObject().getCurrentlyProcessedMessage()->getSender();
        std::string id;
        bool clamp15On = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            clamp15On = clamp15On_;
            if (accept_) {
                id = "clamp15-" + std::to_string(nextId_++);
                subscribers_[id] = subscriber;
            }
        }
        result.returnResults(id);
        if (id.empty()) {
            CSCLogging::Info("ClampControlService: refused a subscription of " + subscriber);
            return;
        }
        CSCLogging::Info("ClampControlService: subscription " + id + " for " + subscriber);
        // After the reply, so the subscriber knows its id before the state arrives.
        auto signal = getObject().createSignal(INTERFACE_NAME, "Subscribed");
        signal << id << clamp15On;
        Send(signal, subscriber);
    }

    bool GetState() override { return ClampState(); }

    void Send(sdbus::Signal& signal, const std::string& destination) {
        signal.setDestination(destination);
        try {
            getObject().emitSignal(signal);
        } catch (const sdbus::Error& error) {
            CSCLogging::Warning("ClampControlService: cannot notify " + destination + ": " +
                                error.what());
        }
    }

    void Forget(const std::string& uniqueName) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = subscribers_.begin(); it != subscribers_.end();) {
            it = it->second == uniqueName ? subscribers_.erase(it) : std::next(it);
        }
    }

    sdbus::Slot leaverWatch_;
    std::mutex offerMutex_;
    std::mutex sendMutex_;
    mutable std::mutex mutex_;  // guards the members below
    bool clamp15On_;
    bool offered_ = false;
    bool accept_ = true;
    std::uint64_t nextId_ = 1;
    std::map<std::string, std::string> subscribers_;  // id -> subscriber's unique bus name
};

ClampControlService::ClampControlService(bool clamp15On)
    : impl_(std::make_unique<Impl>(idl::OpenBusConnection(), clamp15On)) {}

ClampControlService::~ClampControlService() = default;

void ClampControlService::Offer() {
    impl_->Offer();
}

void ClampControlService::StopOffer() {
    impl_->StopOffer();
}

bool ClampControlService::IsOffered() const {
    return impl_->IsOffered();
}

void ClampControlService::SetClampState(bool clamp15On) {
    impl_->SetClampState(clamp15On);
}

bool ClampControlService::ClampState() const {
    return impl_->ClampState();
}

void ClampControlService::SetAcceptSubscriptions(bool accept) {
    impl_->SetAcceptSubscriptions(accept);
}

std::size_t ClampControlService::SubscriberCount() const {
    return impl_->SubscriberCount();
}

}  // namespace clampcontrolclient
