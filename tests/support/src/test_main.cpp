#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "csc_logging/csc_logging.hpp"
#include "csc_logging/log_capture.hpp"

namespace {

// Keeps the log of the running test and prints it only when the test failed,
// so a green run stays quiet and a red one explains itself.
class CapturedLogPrinter : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo& /*info*/) override { capture_.Clear(); }

    void OnTestEnd(const ::testing::TestInfo& info) override {
        if (info.result() != nullptr && info.result()->Failed()) {
            std::printf("---- log of %s.%s ----\n%s---- end of log ----\n", info.test_suite_name(),
                        info.name(), capture_.Dump().c_str());
            std::fflush(stdout);
        }
        capture_.Clear();
    }

private:
    csc_logging::LogCapture capture_;
};

}  // namespace

// Leaks that belong to libraries we link, not to us: sdbus-c++ 1.2 keeps the
// sd-bus object of a connection attempt that failed, and OpenSSL keeps the
// per-thread state of libmosquitto's TLS threads.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sd_bus_new\n"
           "leak:libcrypto.so\n";
}

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    // Console output only when asked for (KELVANE_LOG=console); captures see everything.
    setenv("KELVANE_LOG", "none", 0);
    csc_logging::CSCLogging::InitLogging("TEST", "kelvane tests");
    ::testing::UnitTest::GetInstance()->listeners().Append(new CapturedLogPrinter());
    return RUN_ALL_TESTS();
}
