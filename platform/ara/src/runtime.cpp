#include "runtime.hpp"

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>

#include <cctype>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ara/com/com_error_domain.hpp"
#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"

namespace ara::com::internal {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

using idl::kBusDaemonName;
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";

std::string OwnerChangeRule(const std::string& busName) {
    return std::string("type='signal',sender='") + kBusDaemonName + "',path='" + kBusDaemonPath +
           "',interface='" + kBusDaemonName + "',member='NameOwnerChanged',arg0='" + busName + "'";
}

bool ValidBusName(const std::string& name) {
    if (name.empty() || name.size() > 255 || name.front() == '.' || name.back() == '.' ||
        name.find('.') == std::string::npos || name.find("..") != std::string::npos) {
        return false;
    }
    bool elementStart = true;
    for (const char c : name) {
        if (c == '.') {
            elementStart = true;
            continue;
        }
        const auto uc = static_cast<unsigned char>(c);
        if (!(std::isalnum(uc) || c == '_' || c == '-') || (elementStart && std::isdigit(uc))) {
            return false;
        }
        elementStart = false;
    }
    return true;
}

}  // namespace

std::shared_ptr<Runtime> Runtime::Instance() {
    static std::mutex mutex;
    static std::weak_ptr<Runtime> current;
    std::lock_guard<std::mutex> lock(mutex);
    if (auto runtime = current.lock()) {
        return runtime;
    }
    // The last holder may let go on the loop thread (a handler's copy of its
    // FindServiceHandle); the loop cannot join itself, so another thread ends it.
    std::shared_ptr<Runtime> runtime(new Runtime(idl::BusAddress()), [](Runtime* doomed) {
        if (doomed->loop_.InLoopThread()) {
            std::thread([doomed] { delete doomed; }).detach();
        } else {
            delete doomed;
        }
    });
    runtime->self_ = runtime;
    current = runtime;
    return runtime;
}

std::string Runtime::BusNameOf(const ara::core::InstanceSpecifier& instance) {
    std::string name;
    const std::string_view text = instance.ToString();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "::") == 0) {
            name += '.';
            ++i;
        } else if (text[i] == '/') {
            name += '.';
        } else {
            name += text[i];
        }
    }
    if (!ValidBusName(name)) {
        throw std::invalid_argument("instance specifier \"" + std::string(text) +
                                    "\" gives no valid bus name");
    }
    return name;
}

Runtime::Runtime(std::string address)
    : address_(std::move(address))
    , loop_("ara::com", address_,
            idl::BusLoop::Callbacks{[this](sdbus::IConnection& c) { OnConnected(c); },
                                    [this] { OnLost(); }}) {}

Runtime::~Runtime() {
    if (!loop_.Running()) {
        return;
    }
    try {
        loop_.Execute([this](sdbus::IConnection*) {
            // Searches left running have nobody to tell any more.
            for (auto& [id, search] : searches_) {
                search.handler = nullptr;
            }
            OnLost();
            searches_.clear();
            offerings_.clear();
            deadSlots_.clear();
            deadObjects_.clear();
        });
    } catch (const std::exception& error) {
        CSCLogging::Error(CSCLogEntry() << "ara::com: runtime shutdown: " << error.what());
    }
    loop_.Stop();
}

void Runtime::Start() {
    loop_.Start();
}

FindServiceHandle Runtime::StartFind(const std::string& busName, const std::string& objectPath,
                                     FindServiceHandler<ServiceHandle> handler) {
    const std::uint64_t id = nextId_++;
    loop_.Post([this, id, busName, objectPath,
                handler = std::move(handler)](sdbus::IConnection* connection) mutable {
        searches_[id] = Search{busName, objectPath, std::move(handler), {}, {}};
        if (connection != nullptr) {
            Follow(id, *connection);
        }
    });
    return FindServiceHandle(id, self_.lock());
}

void Runtime::StopFindService(const FindServiceHandle& handle) {
    if (handle.runtime_) {
        handle.runtime_->StopFind(handle);
    }
}

void Runtime::StopFind(const FindServiceHandle& handle) {
    loop_.Execute([this, id = handle.Id()](sdbus::IConnection*) {
        const auto found = searches_.find(id);
        if (found == searches_.end()) {
            return;
        }
        // Called from the search's own handler, its match may be dispatching right now.
        Bury(std::move(found->second.match));
        searches_.erase(found);
    });
}

std::uint64_t Runtime::Offer(const std::string& busName, ObjectFactory factory) {
    const std::uint64_t id = nextId_++;
    loop_.Execute([&](sdbus::IConnection* connection) {
        Offering offering{busName, std::move(factory), nullptr};
        if (connection != nullptr) {
            try {
                Publish(*connection, offering);
            } catch (const sdbus::Error& error) {
                Bury(std::move(offering.object));
                throw ComException(ComErrc::kServiceNotOffered,
                                   "cannot own " + busName + ": " + error.getMessage());
            }
        } else {
            CSCLogging::Warning(CSCLogEntry()
                                << "ara::com: " << busName << " will be offered once bus "
                                << address_ << " is reachable");
        }
        offerings_.emplace(id, std::move(offering));
    });
    return id;
}

void Runtime::Withdraw(std::uint64_t offerId) {
    loop_.Execute([this, offerId](sdbus::IConnection* connection) {
        const auto found = offerings_.find(offerId);
        if (found == offerings_.end()) {
            return;
        }
        if (connection != nullptr && found->second.object) {
            try {
                connection->releaseName(found->second.busName);
            } catch (const sdbus::Error& error) {
                CSCLogging::Warning(CSCLogEntry() << "ara::com: releasing " << found->second.busName
                                                  << " failed: " << error.getMessage());
            }
        }
        // Withdrawn from one of its own method calls, the object is still in use.
        Bury(std::move(found->second.object));
        offerings_.erase(found);
    });
}

void Runtime::OnConnected(sdbus::IConnection& connection) {
    busDaemon_ = sdbus::createProxy(connection, kBusDaemonName, kBusDaemonPath);
    busDaemon_->finishRegistration();
    for (auto& [id, offering] : offerings_) {
        try {
            Publish(connection, offering);
        } catch (const sdbus::Error& error) {
            CSCLogging::Error(CSCLogEntry() << "ara::com: offering " << offering.busName
                                            << " again failed: " << error.getMessage());
        }
    }
    for (auto& [id, search] : searches_) {
        Follow(id, connection);
    }
}

void Runtime::OnLost() {
    for (auto& [id, offering] : offerings_) {
        Bury(std::move(offering.object));
    }
    std::vector<std::uint64_t> ids;
    for (auto& [id, search] : searches_) {
        Bury(std::move(search.match));
        ids.push_back(id);
    }
    busDaemon_.reset();
    // Instances on a bus we are not connected to are gone for us.
    for (const auto id : ids) {
        OwnerChanged(id, "");
    }
    deadSlots_.clear();
    deadObjects_.clear();
}

void Runtime::Follow(std::uint64_t id, sdbus::IConnection& connection) {
    auto& search = searches_.at(id);
    // Subscribe before asking, so that no change between the two is missed.
    search.match =
        connection.addMatch(OwnerChangeRule(search.busName), [this, id](sdbus::Message& message) {
            if (!senderFilter_.Accept(message, kBusDaemonName)) {
                return;
            }
            std::string name;
            std::string oldOwner;
            std::string newOwner;
            message >> name >> oldOwner >> newOwner;
            OwnerChanged(id, newOwner);
        });
    std::string owner;
    try {
        busDaemon_->callMethod("GetNameOwner")
            .onInterface(kBusDaemonName)
            .withArguments(search.busName)
            .storeResultsTo(owner);
    } catch (const sdbus::Error& error) {
        if (error.getName() != "org.freedesktop.DBus.Error.NameHasNoOwner") {
            throw;
        }
    }
    OwnerChanged(id, owner);
}

void Runtime::Publish(sdbus::IConnection& connection, Offering& offering) {
    offering.object = offering.factory(connection);
    connection.requestName(offering.busName);
}

void Runtime::OwnerChanged(std::uint64_t id, const std::string& owner) {
    const auto found = searches_.find(id);
    if (found == searches_.end() || found->second.owner == owner) {
        return;
    }
    Search& search = found->second;
    search.owner = owner;
    if (!search.handler) {
        return;
    }
    ServiceHandleContainer<ServiceHandle> handles;
    if (!owner.empty()) {
        handles.emplace_back(address_, search.busName, search.objectPath, owner);
    }
    // Copies: the handler may stop its own search.
    const auto handler = search.handler;
    const std::string busName = search.busName;
    try {
        handler(std::move(handles), FindServiceHandle(id, self_.lock()));
    } catch (const std::exception& error) {
        CSCLogging::Error(CSCLogEntry() << "ara::com: availability handler for " << busName
                                        << " failed: " << error.what());
    }
}

void Runtime::Bury(sdbus::Slot slot) {
    if (!slot) {
        return;
    }
    deadSlots_.push_back(std::move(slot));
    loop_.Post([this](sdbus::IConnection*) { deadSlots_.clear(); });
}

void Runtime::Bury(std::shared_ptr<void> object) {
    if (!object) {
        return;
    }
    deadObjects_.push_back(std::move(object));
    loop_.Post([this](sdbus::IConnection*) { deadObjects_.clear(); });
}

}  // namespace ara::com::internal
