#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace csc_logging {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::ReadFile;

// A dlt-daemon of the test's own on ::1 (no multicast), a receiver, and a
// program that logs through the DLT sink: the lines arrive under app id KV.
TEST(DltSinkTest, RecordsReachADltDaemonUnderTheApplicationId) {
#if defined(__SANITIZE_THREAD__)
    // libdlt is not built for ThreadSanitizer; its threads make this test unreliable there.
    GTEST_SKIP() << "not meaningful under ThreadSanitizer";
#endif
    if (std::system("pgrep -x dlt-daemon >/dev/null") == 0) {
        GTEST_SKIP() << "another dlt-daemon owns /tmp/dlt and port 3490";
    }
    kelvane::testing::TemporaryDirectory dir;
    const auto shows = [&](const std::string& file, const std::string& text) {
        return kelvane::testing::WaitUntil(
            [&] { return ReadFile(dir.File(file)).find(text) != std::string::npos; }, 5s);
    };
    const std::string config = dir.Write("dlt.conf",
                                         "Daemonize = 0\nSendSerialHeader = 0\nECUId = ECU1\n"
                                         "SharedMemorySize = 100000\nPersistanceStoragePath = " +
                                             dir.Path() +
                                             "\nLoggingMode = 0\nContextLogLevel = 4\n"
                                             "UDPConnectionSetup = 0\nBindAddress = ::1\n");
    ChildProcess daemon({{"dlt-daemon", "-c", config}, {}, dir.File("daemon.log")});
    ASSERT_TRUE(shows("daemon.log", "Switched to")) << ReadFile(dir.File("daemon.log"));
    ChildProcess receiver(
        {{"stdbuf", "-oL", "dlt-receive", "-a", "::1"}, {}, dir.File("received.txt")});
    ASSERT_TRUE(shows("received.txt", "Daemon launched"));

    // It stays up, as the client does: libdlt resends what it had to buffer
    // while the daemon was busy, which an exiting program would give up on.
    ChildProcess program({{KELVANE_LOG_PROGRAM, "--linger", "KV", "info:Kelvane Client Ready",
                           "info:0A\r\nDLC Update finished successfully."},
                          {{"KELVANE_LOG", "dlt"}},
                          dir.File("program.log")});

    EXPECT_TRUE(shows("received.txt", "KV-- KVCL log info V 1 [Kelvane Client Ready]"))
        << ReadFile(dir.File("received.txt"));
    EXPECT_TRUE(
        shows("received.txt", "KV-- KVCL log info V 1 [0A\\r\\nDLC Update finished successfully.]"))
        << ReadFile(dir.File("received.txt"));
}

}  // namespace
}  // namespace csc_logging
