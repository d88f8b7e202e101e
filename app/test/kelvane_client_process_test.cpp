#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

// The built client on this host: a private bus, a broker, and nothing behind
// the key-management and clamp services.
class KelvaneClientProcessTest : public ::testing::Test {
protected:
    std::string ConnectorConfig(const std::string& connectionState) const {
        std::string ini = "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(broker_.Port()) +
                          "\nclient_id=kelvane-client-test\n[connection_state]\n" + connectionState;
        for (const char* id :
             {"TTVI-Kelvane-C003.COzelkDlcChallenge", "TTVI-Kelvane-C003.COzelkDlcDownload",
              "TTVI-Kelvane-C003.COzelkDlcStatusFeedback"}) {
            ini += std::string("[transaction ") + id + "]\nurl=http://127.0.0.1:1/x\ntoken=t\n";
        }
        return ini;
    }

    std::unique_ptr<ChildProcess> StartClient(const std::string& viConfigPath) {
        return std::make_unique<ChildProcess>(ChildProcess::Options{
            {FindProgram("kelvane-client")},
            {{"KELVANE_VI_CONFIG", viConfigPath},
             {"KELVANE_PHM_CONFIG",
              directory_.Write("phm.ini", "[supervision]\nkeep_alive_period_ms=5000\n")},
             {"KELVANE_TESMO_ID_PATH", directory_.Write("tesmo_string.bin", "TESMO")},
             {"KELVANE_DBUS_ADDRESS", dbus_.Address()},
             {"KELVANE_LOG", "console"},
             {"KELVANE_LOG_LEVEL", "debug"}},
            Output()});
    }

    std::string Output() const { return directory_.File("client.log"); }
    bool WaitForLine(const std::string& text) const {
        return WaitUntil([&] { return ReadFile(Output()).find(text) != std::string::npos; }, 20s);
    }

    TemporaryDirectory directory_;
    PrivateDbusDaemon dbus_;
    MosquittoBroker broker_;
};

TEST_F(KelvaneClientProcessTest, StopsCleanlyOnSigtermWhileWaitingWithoutTimeout) {
    auto client = StartClient(directory_.Write("vi.ini", ConnectorConfig("mode=fixed\nstate=2\n")));
    ASSERT_TRUE(WaitForLine("MQTT Subscribed successfully")) << ReadFile(Output());
    const std::string log = ReadFile(Output());
    ASSERT_NE(log.find("Kelvane Client Ready"), std::string::npos) << log;
    ASSERT_TRUE(WaitUntil(
        [&] {
            const std::string now = ReadFile(Output());
            return now.rfind("Process timeout set to inf") >
                   now.find("MQTT Subscribed successfully");
        },
        20s))
        << ReadFile(Output());

    client->Signal(SIGTERM);
    const auto status = client->WaitForExit(5s);

    ASSERT_TRUE(status.has_value()) << ReadFile(Output());
    EXPECT_EQ(*status, 0) << ReadFile(Output());
    const std::string end = ReadFile(Output());
    EXPECT_LT(end.find("Handling Kelvane Client Termination Request"),
              end.find("Kelvane Client Terminated."))
        << end;
    EXPECT_EQ(end.find(" KV error "), std::string::npos) << end;
}

TEST_F(KelvaneClientProcessTest, MissingConnectorConfigurationEndsTheClient) {
    auto client = StartClient(directory_.File("missing.ini"));

    const auto status = client->WaitForExit(20s);

    ASSERT_TRUE(status.has_value()) << ReadFile(Output());
    EXPECT_EQ(*status, 0);
    const std::string log = ReadFile(Output());
    EXPECT_NE(log.find("VI-Connector failed to start!"), std::string::npos) << log;
    EXPECT_LT(log.find("Kelvane client stopped, VIConnector Status=3"),
              log.find("Kelvane Client Terminated."))
        << log;
}

}  // namespace
