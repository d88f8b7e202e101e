#include <gtest/gtest.h>
#include <pwd.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

// Stand-ins for the service user and for anybody else; both exist on Debian.
constexpr const char* kServiceUser = "daemon";
constexpr const char* kOtherUser = "nobody";

struct Service {
    const char* name;
    const char* path;
    const char* interface;
};

const Service kOurServices[] = {
    {"zelk.interfaces.diagservices.DiagServices", "/zelk/interfaces/diagservices/DiagServices",
     "zelk.interfaces.diagservices.DiagServices"},
    {"zelk.interfaces.typeidaccess.TypeIdAccess", "/zelk/interfaces/typeidaccess/TypeIdAccess",
     "zelk.interfaces.typeidaccess.TypeIdAccess"},
    {"ac.dm.genericuds.GenericUDSService", "/ac/dm/genericuds/GenericUDSService",
     "ac.dm.genericuds.GenericUDSService"},
    {"clampcontrol.ClampControl", "/clampcontrol/ClampControl", "clampcontrol.ClampControl"},
};
// Open to everybody by its own policy, and speaking one of our interfaces: a
// rule of ours keyed on the interface alone would wrongly close it.
const Service kUnrelated = {"org.example.Unrelated", "/org/example/Unrelated",
                            "zelk.interfaces.diagservices.DiagServices"};

// How a vendor ships a service policy: root owns the names, callers are the
// business of the callers' own files.
std::string SampleServicePolicy() {
    std::string owners;
    for (const auto& service : kOurServices) {
        owners += std::string("<allow own=\"") + service.name + "\"/>";
    }
    return std::string("<busconfig><policy user=\"root\">") + owners + "<allow own=\"" +
           kUnrelated.name + "\"/></policy><policy context=\"default\"><allow send_destination=\"" +
           kUnrelated.name + "\"/></policy></busconfig>\n";
}

std::string OurPolicy() {
    std::string text = ReadFile(KELVANE_DBUS_POLICY);
    const std::string from = "user=\"kelvane\"";
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos);
    if (at != std::string::npos) {
        text.replace(at, from.size(), std::string("user=\"") + kServiceUser + "\"");
    }
    return text;
}

// The default context of Debian's system.conf: method calls need a hole.
std::string SystemBusConfig(const std::string& socket, const std::vector<std::string>& includes) {
    std::string config =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
        "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig>"
        "<type>system</type><listen>unix:path=" +
        socket +
        "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
        "<allow user=\"*\"/><deny own=\"*\"/><deny send_type=\"method_call\"/>"
        "<allow send_type=\"signal\"/>"
        "<allow send_requested_reply=\"true\" send_type=\"method_return\"/>"
        "<allow send_requested_reply=\"true\" send_type=\"error\"/>"
        "<allow receive_type=\"method_call\"/><allow receive_type=\"method_return\"/>"
        "<allow receive_type=\"error\"/><allow receive_type=\"signal\"/>"
        "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>"
        "</policy>";
    for (const auto& include : includes) {
        config += "<include>" + include + "</include>";
    }
    return config + "</busconfig>\n";
}

class SystemBus {
public:
    explicit SystemBus(bool oursFirst) {
        ::chmod(directory_.Path().c_str(), 0755);  // other users reach the socket
        const auto ours = directory_.Write("kelvane-client.conf", OurPolicy());
        const auto theirs = directory_.Write("services.conf", SampleServicePolicy());
        const auto socket = directory_.File("system_bus_socket");
        address_ = "unix:path=" + socket;
        const auto config = directory_.Write(
            "system.conf",
            SystemBusConfig(socket, oursFirst ? std::vector<std::string>{ours, theirs}
                                              : std::vector<std::string>{theirs, ours}));
        daemon_ = std::make_unique<ChildProcess>(ChildProcess::Options{
            {"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + config},
            {},
            directory_.File("dbus-daemon.log")});
        EXPECT_TRUE(WaitUntil([&] { return ::access(socket.c_str(), F_OK) == 0; }, 10s))
            << ReadFile(directory_.File("dbus-daemon.log"));
        for (const auto& service : kOurServices) {
            Offer(service);
        }
        Offer(kUnrelated);
    }

    ~SystemBus() {
        for (auto& connection : connections_) {
            connection->leaveEventLoop();
        }
        objects_.clear();
        connections_.clear();
    }

    // Calls `service` as `user` with dbus-send: "ok", "denied", or what went wrong.
    std::string Call(const char* user, const Service& service) {
        const auto output = directory_.File("call-" + std::to_string(++calls_) + ".out");
        const passwd* account = ::getpwnam(user);
        if (account == nullptr) {
            return std::string("no user ") + user;
        }
        ChildProcess call(ChildProcess::Options{
            {"setpriv", "--reuid=" + std::to_string(account->pw_uid),
             "--regid=" + std::to_string(account->pw_gid), "--clear-groups", "dbus-send",
             "--bus=" + address_, "--print-reply", std::string("--dest=") + service.name,
             service.path, std::string(service.interface) + ".Probe"},
            {},
            output});
        const auto status = call.WaitForExit(20s);
        const std::string text = ReadFile(output);
        if (status == 0) {
            return "ok";
        }
        return text.find("AccessDenied") != std::string::npos ? "denied" : text;
    }

private:
    void Offer(const Service& service) {
        // One connection per name: the bus matches send_destination against
        // every name the receiving connection owns.
        auto connection = sdbus::createSessionBusConnectionWithAddress(address_);
        connection->requestName(service.name);
        auto object = sdbus::createObject(*connection, service.path);
        object->registerMethod("Probe").onInterface(service.interface).implementedAs([] {});
        object->finishRegistration();
        connection->enterEventLoopAsync();
        objects_.push_back(std::move(object));
        connections_.push_back(std::move(connection));
    }

    TemporaryDirectory directory_;
    std::string address_;
    std::unique_ptr<ChildProcess> daemon_;
    std::vector<std::unique_ptr<sdbus::IConnection>> connections_;
    std::vector<std::unique_ptr<sdbus::IObject>> objects_;
    int calls_ = 0;
};

TEST(DbusPolicy, OnlyTheServiceUserReachesOurServicesAndOtherServicesAreUntouched) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "calling as other users needs root";
    }
    for (const bool oursFirst : {true, false}) {
        SCOPED_TRACE(oursFirst ? "our policy read first" : "our policy read last");
        SystemBus sut(oursFirst);

        for (const auto& service : kOurServices) {
            SCOPED_TRACE(service.name);
            EXPECT_EQ(sut.Call(kServiceUser, service), "ok");
            EXPECT_EQ(sut.Call(kOtherUser, service), "denied");
        }
        EXPECT_EQ(sut.Call(kServiceUser, kUnrelated), "ok");
        EXPECT_EQ(sut.Call(kOtherUser, kUnrelated), "ok");
    }
}

}  // namespace
