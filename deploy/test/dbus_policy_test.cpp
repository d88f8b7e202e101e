#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "clampcontrolclient/clamp_control_callback_if.hpp"
#include "clampcontrolclient/clamp_control_client.hpp"
#include "clampcontrolclient/clamp_control_service.hpp"
#include "idl/bus_connection.hpp"
#include "test_support/child_process.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"

// The installed D-Bus policy and our signal handling on a bus configured like Debian's
// system bus; calls and forgeries come from other users, so these tests need root.
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::ReadFile;
using kelvane::testing::WaitUntil;

const std::string kDiag = "zelk.interfaces.diagservices.DiagServices";
const std::string kClamp = "clampcontrol.ClampControl";
// Each is also the interface it speaks, described in the file beside it.
const std::vector<std::pair<std::string, std::string>> kOurServices = {
    {kDiag, "diag_services.xml"},
    {"zelk.interfaces.typeidaccess.TypeIdAccess", "type_id_access.xml"},
    {"ac.dm.genericuds.GenericUDSService", "generic_uds_service.xml"},
    {kClamp, "clamp_control.xml"}};
// What the client calls; every other method must stay closed.
const std::set<std::string> kClientCalls = {
    kDiag + ".GetIdentityHash",
    kDiag + ".GetPssHash",
    kDiag + ".GetTrainingCounter",
    kDiag + ".GetZelkVIN",
    kDiag + ".HandleDlc",
    "zelk.interfaces.typeidaccess.TypeIdAccess.GetCertificate",
    "ac.dm.genericuds.GenericUDSService.HandleMessage",
    kClamp + ".Subscribe"};
// Open to everybody by its own policy, and speaking one of our interfaces: a
// rule of ours keyed on the interface alone would wrongly close it.
const std::string kUnrelated = "org.example.Unrelated";

std::vector<std::string> MethodsOf(const std::string& descriptionFile) {
    const std::string text = ReadFile(std::string(KELVANE_IDL_DIR) + "/" + descriptionFile);
    std::vector<std::string> methods;
    const std::string marker = "<method name=\"";
    for (auto at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
        const auto start = at + marker.size();
        methods.push_back(text.substr(start, text.find('"', start) - start));
    }
    return methods;
}

// Debian's system.conf (method calls need a hole), open to other users, reading our policy
// for `serviceUser` and a vendor's service policy, in either order.
class SystemLikeBus {
public:
    SystemLikeBus(const std::string& serviceUser, bool oursFirst)
        : socket_(directory_.File("bus")) {
        ::chmod(directory_.Path().c_str(), 0755);
        std::string policy = ReadFile(KELVANE_DBUS_POLICY);
        policy.replace(policy.find("user=\"kelvane\""), 14, "user=\"" + serviceUser + "\"");
        const auto ours = "<include>" + directory_.Write("ours.conf", policy) + "</include>";
        // How a vendor ships a service policy: root owns the names, callers are
        // the business of the callers' own files.
        const auto theirs = "<include>" + directory_.Write("theirs.conf", R"(<busconfig>
<policy user="root"><allow own="*"/></policy>
<policy context="default"><allow send_destination="org.example.Unrelated"/></policy>
</busconfig>)") + "</include>";
        const std::string systemBus = R"(<busconfig><type>system</type><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
<allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
<allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>)";
        const auto config = directory_.Write(
            "system.conf", systemBus + "<listen>unix:path=" + socket_ + "</listen>" +
                               (oursFirst ? ours + theirs : theirs + ours) + "</busconfig>\n");
        daemon_ = std::make_unique<ChildProcess>(ChildProcess::Options{
            {"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + config},
            {},
            socket_ + ".log"});
        if (!WaitUntil([&] { return ::access(socket_.c_str(), F_OK) == 0; }, 10s)) {
            throw std::runtime_error("no system-like bus: " + ReadFile(socket_ + ".log"));
        }
    }

    std::string Address() const { return "unix:path=" + socket_; }

    // dbus-send as `user` (nobody: anybody; daemon: the service user): "reached" when the bus
    // delivered a call (no object answers it), "denied" when it refused, else what it printed.
    std::string SendAs(const std::string& user, const std::string& group,
                       const std::vector<std::string>& arguments) {
        const auto output = directory_.File("send." + std::to_string(++sends_));
        std::vector<std::string> argv = {"setpriv",        "--reuid=" + user, "--regid=" + group,
                                         "--clear-groups", "dbus-send",       "--bus=" + Address()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        ChildProcess send({argv, {}, output});
        send.WaitForExit(20s);
        const std::string text = ReadFile(output);
        return text.find("Error.AccessDenied") != std::string::npos    ? "denied"
               : text.find("Error.UnknownObject") != std::string::npos ? "reached"
                                                                       : text;
    }

    std::string CallAs(const std::string& user, const std::string& group, const std::string& name,
                       const std::string& method) {
        return SendAs(user, group, {"--print-reply", "--dest=" + name, "/probe", method});
    }

private:
    kelvane::testing::TemporaryDirectory directory_;
    std::string socket_;
    std::unique_ptr<ChildProcess> daemon_;
    int sends_ = 0;
};

TEST(DbusPolicy, TheServiceUserReachesExactlyTheMethodsTheClientCallsAndOthersAreUntouched) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "calling as other users needs root";
    }
    for (const bool oursFirst : {true, false}) {
        SCOPED_TRACE(oursFirst ? "our policy read first" : "our policy read last");
        SystemLikeBus bus("daemon", oursFirst);
        // One connection per name: the bus matches send_destination against
        // every name the receiving connection owns.
        std::vector<std::unique_ptr<sdbus::IConnection>> services;
        for (const auto& name : {kOurServices[0].first, kOurServices[1].first,
                                 kOurServices[2].first, kOurServices[3].first, kUnrelated}) {
            services.push_back(sdbus::createSessionBusConnectionWithAddress(bus.Address()));
            services.back()->requestName(name);
            services.back()->enterEventLoopAsync();
        }

        std::size_t allowed = 0;
        for (const auto& [name, description] : kOurServices) {
            for (const auto& member : MethodsOf(description)) {
                const auto method = name + "." + member;
                const bool used = kClientCalls.count(method) != 0;
                allowed += used ? 1 : 0;
                EXPECT_EQ(bus.CallAs("daemon", "daemon", name, method), used ? "reached" : "denied")
                    << method;
                if (used) {
                    EXPECT_EQ(bus.CallAs("nobody", "nogroup", name, method), "denied") << method;
                }
            }
        }
        EXPECT_EQ(allowed, kClientCalls.size()) << "a called method is missing from the IDL";
        EXPECT_EQ(bus.CallAs("daemon", "daemon", kUnrelated, kDiag + ".GetStatus"), "reached");
        EXPECT_EQ(bus.CallAs("nobody", "nogroup", kUnrelated, kDiag + ".GetStatus"), "reached");
    }
}

TEST(DbusPolicy, OnlyKelvaneDbusAddressMovesUsOffTheSystemBus) {
    kelvane::testing::ScopedEnvironment stray("DBUS_SESSION_BUS_ADDRESS", "unix:path=/tmp/stray");
    {
        kelvane::testing::ScopedEnvironment unset("KELVANE_DBUS_ADDRESS", std::nullopt);
        EXPECT_EQ(idl::BusAddress(), "system");
    }
    kelvane::testing::ScopedEnvironment ours("KELVANE_DBUS_ADDRESS", "unix:path=/tmp/ours");
    EXPECT_EQ(idl::BusAddress(), "unix:path=/tmp/ours");
}

class MockClampCallback : public clampcontrolclient::ClampControlCallbackIf {
public:
    MOCK_METHOD(void, ConnectionStateNotification, (bool), (override));
    MOCK_METHOD(void, ClampControlNotification, (bool), (override));
    MOCK_METHOD(void, ClampControlSubscribedNotification, (), (override));
};

TEST(DbusPolicy, SignalsForgedByAnotherUserChangeNothingAndTheRealOnesStillArrive) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "sending as another user needs root";
    }
    // Root plays the service user and the vehicle; nobody forges.
    SystemLikeBus bus("root", true);
    kelvane::testing::ScopedEnvironment useIt("KELVANE_DBUS_ADDRESS", bus.Address());
    clampcontrolclient::ClampControlService clampService;
    clampService.Offer();
    // Strict and in order: a forged signal that gets through is a call too many.
    std::atomic<int> clampCalls{0};
    const auto counted = [&](auto...) { ++clampCalls; };
    testing::StrictMock<MockClampCallback> clamp;
    {
        const testing::InSequence inOrder;
        EXPECT_CALL(clamp, ConnectionStateNotification(true)).WillOnce(counted);
        EXPECT_CALL(clamp, ClampControlSubscribedNotification()).WillOnce(counted);
        EXPECT_CALL(clamp, ClampControlNotification(false)).WillOnce(counted);
        EXPECT_CALL(clamp, ClampControlNotification(true)).WillOnce(counted);
        EXPECT_CALL(clamp, ClampControlNotification(false)).WillOnce(counted);
    }
    clampcontrolclient::ClampControlClient client;
    client.RegisterCallback(&clamp);
    client.Start();
    ASSERT_FALSE(client.Subscribe().empty());
    ASSERT_TRUE(WaitUntil([&] { return clampCalls == 3; }, 5s));

    auto diagOwner = sdbus::createSessionBusConnectionWithAddress(bus.Address());
    diagOwner->requestName(kDiag);
    ac::com::runtime::Component_singleton component(true, "test");
    // Shared with the binding's thread, which may call after the test has ended.
    struct Seen {
        std::atomic<int> calls{0};
        std::atomic<std::size_t> last{0};  // stored after the count moves
    };
    const auto diag = std::make_shared<Seen>();
    auto search = zelk::interfaces::diagservices::proxy::DiagServicesProxy::StartFindService(
        [diag](auto handles, ara::com::FindServiceHandle) {
            ++diag->calls;
            diag->last = handles.size();
        },
        ara::core::InstanceSpecifier(zelk::interfaces::diagservices::kInstance));
    ASSERT_TRUE(WaitUntil([&] { return diag->calls == 1; }, 5s));

    // Sprayed at every connection, as each would be by someone who guessed its name.
    auto daemon = sdbus::createProxy(*diagOwner, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    std::vector<std::string> names;
    daemon->callMethod("ListNames").onInterface("org.freedesktop.DBus").storeResultsTo(names);
    const std::string ownerChanged = "org.freedesktop.DBus.NameOwnerChanged";
    const std::string clampPath = "/clampcontrol/ClampControl";
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& name) { return name.rfind(':', 0) != 0; }),
                names.end());
    for (const auto& name : names) {
        const auto to = "--dest=" + name;
        std::vector<std::vector<std::string>> forgeries = {
            {"--type=signal", to, clampPath, kClamp + ".ClampStateChanged", "boolean:true"},
            {"--type=signal", to, clampPath, kClamp + ".Subscribed", "string:x", "boolean:true"},
            {"--type=signal", to, "/org/freedesktop/DBus", ownerChanged, "string:" + kClamp,
             "string::1.1", "string:"},
            {"--type=signal", to, "/org/freedesktop/DBus", ownerChanged, "string:" + kDiag,
             "string::1.1", "string::1.999"}};
        for (const auto& leaver : names) {
            forgeries.push_back({"--type=signal", to, "/org/freedesktop/DBus", ownerChanged,
                                 "string:" + leaver, "string:" + leaver, "string:"});
        }
        for (const auto& forgery : forgeries) {
            ASSERT_EQ(bus.SendAs("nobody", "nogroup", forgery), "");
        }
    }

    // The real changes, after the forgeries: the last of each shows that
    // everything before it has been handled.
    clampService.SetClampState(true);
    clampService.SetClampState(false);
    ASSERT_TRUE(WaitUntil([&] { return clampCalls == 5; }, 5s));
    diagOwner->releaseName(kDiag);
    ASSERT_TRUE(WaitUntil([&] { return diag->calls >= 2 && diag->last == 0; }, 5s));

    EXPECT_EQ(clampService.SubscriberCount(), 1u);
    EXPECT_EQ(diag->calls, 2) << "found, then gone, and nothing between";
    zelk::interfaces::diagservices::proxy::DiagServicesProxy::StopFindService(search);
    client.Stop();
}

}  // namespace
