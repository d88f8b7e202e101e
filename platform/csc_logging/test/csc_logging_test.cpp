#include "csc_logging/csc_logging.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"

namespace csc_logging {
namespace {

TEST(CSCLoggingTest, EveryLevelReachesTheSinksEscapedWithIntegersInDecimalAndFormatsAsUtc) {
    LogCapture log;

    CSCLogging::Verbose("v\r\n\tDLC Update finished successfully.\x1b[2K\x7f\x01\\n \xc3\xa9");
    CSCLogging::Debug(CSCLogEntry() << "a" << std::uint8_t{7} << "," << std::int8_t{-3} << ","
                                    << std::uint16_t{65535} << "," << true << "," << false);
    CSCLogging::Info("i");
    CSCLogging::Warning(CSCLogEntry() << "w");
    CSCLogging::Error("e");

    std::string seen;  // each record's level and text
    for (const auto& record : log.Records()) {
        seen += std::to_string(static_cast<int>(record.level)) + " " + record.text + "\n";
    }
    EXPECT_EQ(seen,
              "0 v\\r\\n\\tDLC Update finished successfully.\\x1b[2K\\x7f\\x01\\\\n \xc3\xa9\n"
              "1 a7,-3,65535,1,0\n2 i\n3 w\n4 e\n");
    EXPECT_EQ(FormatRecord({std::chrono::system_clock::time_point(
                                std::chrono::milliseconds(1'700'000'000'123)),
                            LogLevel::kWarning, "KV", "hello"}),
              "2023-11-14T22:13:20.123Z KV warning hello");
    EXPECT_EQ(ParseLogLevel("warn"), LogLevel::kWarning);
    EXPECT_FALSE(ParseLogLevel("INFO").has_value());
}

TEST(CSCLoggingTest, RecordsFromManyThreadsArriveWholeAndNoneIsLost) {
    LogCapture log;

    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                CSCLogging::Info(CSCLogEntry() << "thread " << t << " line " << i << " end");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    const auto texts = log.Texts();
    ASSERT_EQ(texts.size(), 8U * 500U);
    for (const auto& text : texts) {
        EXPECT_TRUE(text.rfind("thread ", 0) == 0 && text.substr(text.size() - 4) == " end")
            << text;
    }
}

}  // namespace
}  // namespace csc_logging
