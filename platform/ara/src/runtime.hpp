#ifndef ARA_SRC_RUNTIME_HPP
#define ARA_SRC_RUNTIME_HPP

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ara/com/types.hpp"
#include "ara/core/instance_specifier.hpp"
#include "idl/bus_loop.hpp"
#include "idl/sender_filter.hpp"

namespace ara::com::internal {

/// The D-Bus binding's process-wide state: one connection with its own thread
/// (see idl::BusLoop) that follows service owners for StartFindService and serves
/// offered skeletons. Shared by everyone who holds Instance(); made on first
/// use, with the bus address of that moment.
class Runtime {
public:
    /// The server side of one offered service, made on the loop thread for the
    /// current connection (again after a reconnection).
    using ObjectFactory = std::function<std::shared_ptr<void>(sdbus::IConnection&)>;

    static std::shared_ptr<Runtime> Instance();
    /// The bus name an instance is offered under: "a::b::C" and "a/b/C" give "a.b.C".
    /// Throws std::invalid_argument for a specifier that makes no valid bus name.
    static std::string BusNameOf(const ara::core::InstanceSpecifier& instance);

    /// StopFind() on the runtime that made the handle; nothing for an empty handle.
    static void StopFindService(const FindServiceHandle& handle);

    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    const std::string& BusAddress() const { return address_; }
    /// Connects now rather than on first use.
    void Start();

    FindServiceHandle StartFind(const std::string& busName, const std::string& objectPath,
                                FindServiceHandler<ServiceHandle> handler);
    /// After it returns, the search's handler is not running and is not called again.
    void StopFind(const FindServiceHandle& handle);

    /// Serves the object and takes the bus name. Throws ComException when the
    /// bus refuses the name; while the bus is unreachable the offer waits for it.
    std::uint64_t Offer(const std::string& busName, ObjectFactory factory);
    /// Releases the name and the object; no call is being served on return.
    void Withdraw(std::uint64_t offerId);

private:
    struct Search {
        std::string busName;
        std::string objectPath;
        FindServiceHandler<ServiceHandle> handler;
        std::string owner;
        sdbus::Slot match;
    };
    struct Offering {
        std::string busName;
        ObjectFactory factory;
        std::shared_ptr<void> object;
    };

    explicit Runtime(std::string address);
    void OnConnected(sdbus::IConnection& connection);
    void OnLost();
    void Follow(std::uint64_t id, sdbus::IConnection& connection);
    void Publish(sdbus::IConnection& connection, Offering& offering);
    void OwnerChanged(std::uint64_t id, const std::string& owner);
    void Bury(sdbus::Slot slot);
    void Bury(std::shared_ptr<void> object);

    std::weak_ptr<Runtime> self_;
    const std::string address_;
    std::atomic<std::uint64_t> nextId_{1};
    // Loop thread only.
    std::map<std::uint64_t, Search> searches_;
    std::map<std::uint64_t, Offering> offerings_;
    std::unique_ptr<sdbus::IProxy> busDaemon_;
    idl::SenderFilter senderFilter_{"ara::com"};
    // What a callback released while it may still be running; freed by the next task.
    std::vector<sdbus::Slot> deadSlots_;
    std::vector<std::shared_ptr<void>> deadObjects_;
    // Last: its thread is joined before the state above goes away.
    idl::BusLoop loop_;
};

}  // namespace ara::com::internal

#endif  // ARA_SRC_RUNTIME_HPP
