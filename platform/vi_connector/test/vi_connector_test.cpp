#include "vi_connector/vi_connector.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/temporary_directory.hpp"

namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::TemporaryDirectory;

class RecordingSessionCallback : public VISessionCallbackIf {
public:
    void VIConnectorStatus(SessionStatus status) override {
        std::lock_guard<std::mutex> lock(mutex_);
        statuses_.push_back(status);
        changed_.notify_all();
    }
    std::vector<SessionStatus> WaitForStatuses(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 5s, [&] { return statuses_.size() >= count; });
        return statuses_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SessionStatus> statuses_;
};

constexpr const char* kChallenge = "TTVI-Kelvane-C003.COzelkDlcChallenge";

TEST(VIConnectorTest, StartWithAGoodConfigurationReportsOkOnceAndServesTokensAndUrls) {
    TemporaryDirectory dir;
    const auto tokenFile = dir.Write("token", "file-token\n");
    const auto config = dir.Write("vi.ini", std::string("[transaction ") + kChallenge +
                                                "]\nurl=http://127.0.0.1:1/c\ntoken=inline\n"
                                                "[transaction other]\nurl=http://h/o\ntoken_file=" +
                                                tokenFile + "\n");
    RecordingSessionCallback callback;
    VIConnector sut(&callback, nullptr, config);

    sut.Start();

    EXPECT_EQ(callback.WaitForStatuses(1), std::vector<SessionStatus>{SessionStatus::kOk});
    EXPECT_EQ(sut.GetSessionStatus(), SessionStatus::kOk);
    const auto token = sut.GetToken(kChallenge);
    EXPECT_EQ(token.status, 1U);
    EXPECT_EQ(token.token, "inline");
    EXPECT_EQ(sut.GetToken("other").token, "file-token");
    const auto url = sut.GetInvocationUrl(kChallenge);
    EXPECT_EQ(url.status, 0U);
    EXPECT_EQ(url.url, "http://127.0.0.1:1/c");
    EXPECT_NE(sut.GetToken("unknown").status, 1U);
    EXPECT_NE(sut.GetInvocationUrl("unknown").status, 0U);
}

TEST(VIConnectorTest, MissingConfigurationIsRejectedWithOneLineNamingTheFileOnEachStart) {
    TemporaryDirectory dir;
    csc_logging::LogCapture log;
    RecordingSessionCallback callback;
    VIConnector sut(&callback, nullptr, dir.File("missing.ini"));

    sut.Start();

    EXPECT_EQ(callback.WaitForStatuses(1), std::vector<SessionStatus>{SessionStatus::kRejected});
    EXPECT_EQ(sut.GetSessionStatus(), SessionStatus::kRejected);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError, dir.File("missing.ini")), 1U);
    EXPECT_NE(sut.GetToken(kChallenge).status, 1U);
    sut.Start();
    sut.Stop();
    EXPECT_EQ(callback.WaitForStatuses(2).size(), 2U);
}

}  // namespace
}  // namespace vi_connector
