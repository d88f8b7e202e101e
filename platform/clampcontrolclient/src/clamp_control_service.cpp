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
#include "idl/bus_loop.hpp"
#include "idl/clamp_control_adaptor.h"
#include "idl/sender_filter.hpp"

namespace clampcontrolclient {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

}  // namespace

class ClampControlService::Impl {
public:
    explicit Impl(bool clamp15On)
        : clamp15On_(clamp15On)
        , loop_("ClampControlService", idl::BusAddress(),
                idl::BusLoop::Callbacks{[this](sdbus::IConnection& c) { Connect(c); },
                                        [this] { object_.reset(); }}) {
        loop_.Start();
    }

    ~Impl() {
        try {
            StopOffer();
        } catch (const std::exception& error) {
            CSCLogging::Warning(std::string("ClampControlService: ") + error.what());
        }
        loop_.Stop();
    }

    void Offer() {
        std::lock_guard<std::mutex> offering(offerMutex_);
        if (IsOffered()) {
            return;
        }
        // Without a bus, the name is taken as soon as it is back.
        loop_.Execute([](sdbus::IConnection* connection) {
            if (connection != nullptr) {
                connection->requestName(names::kBusName);
            }
        });
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
        loop_.Execute([](sdbus::IConnection* connection) {
            if (connection != nullptr) {
                connection->releaseName(names::kBusName);
            }
        });
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
        loop_.Execute([this, &destinations, clamp15On](sdbus::IConnection*) {
            if (!object_) {
                return;
            }
            for (const auto& destination : destinations) {
                object_->Send("ClampStateChanged", destination,
                              [clamp15On](sdbus::Signal& signal) { signal << clamp15On; });
            }
        });
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
    /// The service's object on one connection; made again after the bus came back.
    class Object final : public sdbus::AdaptorInterfaces<clampcontrol::ClampControl_adaptor> {
    public:
        Object(sdbus::IConnection& connection, Impl& owner)
            : AdaptorInterfaces(connection, names::kObjectPath), owner_(owner) {
            registerAdaptor();
            leaverWatch_ = connection.addMatch(
                std::string("type='signal',sender='") + names::kDbusName + "',interface='" +
                    names::kDbusInterface + "',member='NameOwnerChanged'",
                [this](sdbus::Message& message) {
                    if (!senderFilter_.Accept(message, idl::kBusDaemonName)) {
                        return;
                    }
                    std::string name;
                    std::string oldOwner;
                    std::string newOwner;
                    message >> name >> oldOwner >> newOwner;
                    if (!name.empty() && name[0] == ':' && newOwner.empty()) {
                        owner_.Forget(name);
                    }
                });
        }
        ~Object() {
            leaverWatch_.reset();
            unregisterAdaptor();
        }

        template <typename Fill>
        void Send(const char* member, const std::string& destination, Fill fill) {
            auto signal = getObject().createSignal(INTERFACE_NAME, member);
            fill(signal);
            signal.setDestination(destination);
            try {
                getObject().emitSignal(signal);
            } catch (const sdbus::Error& error) {
                CSCLogging::Warning("ClampControlService: cannot notify " + destination + ": " +
                                    error.what());
            }
        }

    private:
        void Subscribe(sdbus::Result<std::string>&& result) override {
            const std::string subscriber = getObject().getCurrentlyProcessedMessage()->getSender();
            bool clamp15On = false;
            const std::string id = owner_.Admit(subscriber, clamp15On);
            result.returnResults(id);
            if (id.empty()) {
                CSCLogging::Info("ClampControlService: refused a subscription of " + subscriber);
                return;
            }
            CSCLogging::Info("ClampControlService: subscription " + id + " for " + subscriber);
            // After the reply, so the subscriber knows its id before the state arrives.
            Send("Subscribed", subscriber,
                 [&](sdbus::Signal& signal) { signal << id << clamp15On; });
        }

        bool GetState() override { return owner_.ClampState(); }

        Impl& owner_;
        idl::SenderFilter senderFilter_{"ClampControlService"};
        sdbus::Slot leaverWatch_;
    };

    // Loop thread: a new connection, so no subscriber of the old one is left.
    void Connect(sdbus::IConnection& connection) {
        object_.reset();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            subscribers_.clear();
        }
        object_ = std::make_unique<Object>(connection, *this);
        if (IsOffered()) {
            connection.requestName(names::kBusName);
        }
    }

    std::string Admit(const std::string& subscriber, bool& clamp15On) {
        std::lock_guard<std::mutex> lock(mutex_);
        clamp15On = clamp15On_;
        if (!accept_) {
            return {};
        }
        std::string id = "clamp15-" + std::to_string(nextId_++);
        subscribers_[id] = subscriber;
        return id;
    }

    void Forget(const std::string& uniqueName) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = subscribers_.begin(); it != subscribers_.end();) {
            it = it->second == uniqueName ? subscribers_.erase(it) : std::next(it);
        }
    }

    std::mutex offerMutex_;
    std::mutex sendMutex_;
    mutable std::mutex mutex_;  // guards the members below
    bool clamp15On_;
    bool offered_ = false;
    bool accept_ = true;
    std::uint64_t nextId_ = 1;
    std::map<std::string, std::string> subscribers_;  // id -> subscriber's unique bus name
    // Loop thread only.
    std::unique_ptr<Object> object_;
    // Last: its thread ends before the members above go.
    idl::BusLoop loop_;
};

ClampControlService::ClampControlService(bool clamp15On)
    : impl_(std::make_unique<Impl>(clamp15On)) {}

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
