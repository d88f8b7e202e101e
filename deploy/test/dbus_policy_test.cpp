#include <gtest/gtest.h>
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

// Each is also the interface it speaks.
const std::vector<std::string> kOurServices = {
    "zelk.interfaces.diagservices.DiagServices", "zelk.interfaces.typeidaccess.TypeIdAccess",
    "ac.dm.genericuds.GenericUDSService", "clampcontrol.ClampControl"};
// Open to everybody by its own policy, and speaking one of our interfaces: a
// rule of ours keyed on the interface alone would wrongly close it.
const std::string kUnrelated = "org.example.Unrelated";

// Calls `interface`.Probe at `name` as `user`: "reached" when the bus delivered
// it (the service knows no such object), "denied" when the bus refused it.
std::string Call(const std::string& user, const std::string& group, const std::string& socket,
                 const std::string& name, const std::string& interface) {
    const auto output = socket + "." + user + "." + name;
    ChildProcess call({{"setpriv", "--reuid=" + user, "--regid=" + group, "--clear-groups",
                        "dbus-send", "--bus=unix:path=" + socket, "--print-reply", "--dest=" + name,
                        "/probe", interface + ".Probe"},
                       {},
                       output});
    call.WaitForExit(20s);
    const std::string text = ReadFile(output);
    return text.find("Error.AccessDenied") != std::string::npos    ? "denied"
           : text.find("Error.UnknownObject") != std::string::npos ? "reached"
                                                                   : text;
}

TEST(DbusPolicy, OnlyTheServiceUserReachesOurServicesAndOtherServicesAreUntouched) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "calling as other users needs root";
    }
    kelvane::testing::TemporaryDirectory directory;
    ::chmod(directory.Path().c_str(), 0755);  // other users reach the socket
    // Debian's daemon user stands in for the service user, nobody for anybody else.
    std::string policy = ReadFile(KELVANE_DBUS_POLICY);
    policy.replace(policy.find("user=\"kelvane\""), 14, "user=\"daemon\"");
    const auto ours = "<include>" + directory.Write("ours.conf", policy) + "</include>";
    // How a vendor ships a service policy: root owns the names, callers are
    // the business of the callers' own files.
    const auto theirs = "<include>" + directory.Write("theirs.conf", R"(<busconfig>
<policy user="root"><allow own="*"/></policy>
<policy context="default"><allow send_destination="org.example.Unrelated"/></policy>
</busconfig>)") + "</include>";
    auto names = kOurServices;
    names.push_back(kUnrelated);
    for (const bool oursFirst : {true, false}) {
        SCOPED_TRACE(oursFirst ? "our policy read first" : "our policy read last");
        const auto socket = directory.File(oursFirst ? "first" : "last");
        // The default context of Debian's system.conf: method calls need a hole.
        const std::string systemBus = R"(<busconfig><type>system</type><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
<allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
<allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>)";
        const auto config = directory.Write(
            "system.conf", systemBus + "<listen>unix:path=" + socket + "</listen>" +
                               (oursFirst ? ours + theirs : theirs + ours) + "</busconfig>\n");
        ChildProcess daemon({{"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + config},
                             {},
                             socket + ".log"});
        ASSERT_TRUE(
            kelvane::testing::WaitUntil([&] { return ::access(socket.c_str(), F_OK) == 0; }, 10s))
            << ReadFile(socket + ".log");
        // One connection per name: the bus matches send_destination against
        // every name the receiving connection owns.
        std::vector<std::unique_ptr<sdbus::IConnection>> services;
        for (const auto& name : names) {
            services.push_back(sdbus::createSessionBusConnectionWithAddress("unix:path=" + socket));
            services.back()->requestName(name);
            services.back()->enterEventLoopAsync();
        }

        for (const auto& name : kOurServices) {
            EXPECT_EQ(Call("daemon", "daemon", socket, name, name), "reached") << name;
            EXPECT_EQ(Call("nobody", "nogroup", socket, name, name), "denied") << name;
        }
        EXPECT_EQ(Call("daemon", "daemon", socket, kUnrelated, kOurServices[0]), "reached");
        EXPECT_EQ(Call("nobody", "nogroup", socket, kUnrelated, kOurServices[0]), "reached");
    }
}

}  // namespace
