#include <gtest/gtest.h>

#include <string>

#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::ReadFile;

// The built client on this host, with a private bus and nothing behind the
// key-management and clamp services. Its clean stop on SIGTERM is covered by
// the end-to-end scenarios.
TEST(KelvaneClientProcessTest, MissingConnectorConfigurationEndsTheClient) {
    kelvane::testing::TemporaryDirectory directory;
    kelvane::testing::PrivateDbusDaemon dbus;
    const auto output = directory.File("client.log");
    kelvane::testing::ChildProcess client(
        {{kelvane::testing::FindProgram("kelvane-client")},
         {{"KELVANE_VI_CONFIG", directory.File("missing.ini")},
          {"KELVANE_PHM_CONFIG",
           directory.Write("phm.ini", "[supervision]\nkeep_alive_period_ms=5000\n")},
          {"KELVANE_TESMO_ID_PATH", directory.Write("tesmo_string.bin", "TESMO")},
          {"KELVANE_DBUS_ADDRESS", dbus.Address()},
          {"KELVANE_LOG", "console"},
          {"KELVANE_LOG_LEVEL", "debug"}},
         output});

    const auto status = client.WaitForExit(20s);

    ASSERT_TRUE(status.has_value()) << ReadFile(output);
    EXPECT_EQ(*status, 0);
    const std::string log = ReadFile(output);
    EXPECT_NE(log.find("VI-Connector failed to start!"), std::string::npos) << log;
    EXPECT_LT(log.find("Kelvane client stopped, VIConnector Status=3"),
              log.find("Kelvane Client Terminated."))
        << log;
}

}  // namespace
