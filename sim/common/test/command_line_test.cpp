#include "sim_common/command_line.hpp"

#include <gtest/gtest.h>

namespace sim_common {
namespace {

struct Parsed {
    std::string port = "0";
    std::vector<std::string> faults;
    bool verbose = false;
};

CommandLine MakeCommandLine(Parsed& parsed) {
    CommandLine commandLine("tool run [OPTIONS]", "Runs the tool.");
    commandLine.Option("--port", "PORT", "port to bind", &parsed.port)
        .Repeated("--fault", "FAULT", "fault to inject", &parsed.faults)
        .Flag("--verbose", "more output", &parsed.verbose);
    return commandLine;
}

TEST(CommandLineTest, TakesValuesInBothFormsRepeatsAndFlags) {
    Parsed parsed;
    auto sut = MakeCommandLine(parsed);

    ASSERT_TRUE(
        sut.Parse({"--port", "8080", "--fault=a=close", "--fault", "b=status:500:2", "--verbose"}));

    EXPECT_EQ(parsed.port, "8080");
    EXPECT_EQ(parsed.faults, (std::vector<std::string>{"a=close", "b=status:500:2"}));
    EXPECT_TRUE(parsed.verbose);
    EXPECT_TRUE(sut.Given("--port"));
    EXPECT_FALSE(sut.HelpRequested());
}

TEST(CommandLineTest, ProblemsGiveOneLineReasons) {
    Parsed parsed;
    auto unknown = MakeCommandLine(parsed);
    auto missingValue = MakeCommandLine(parsed);
    auto flagWithValue = MakeCommandLine(parsed);
    auto extra = MakeCommandLine(parsed);

    EXPECT_FALSE(unknown.Parse({"--prot", "1"}));
    EXPECT_FALSE(missingValue.Parse({"--port"}));
    EXPECT_FALSE(flagWithValue.Parse({"--verbose=yes"}));
    EXPECT_FALSE(extra.Parse({"surplus"}));

    EXPECT_EQ(unknown.Error(), "unknown option '--prot'");
    EXPECT_EQ(missingValue.Error(), "option '--port' needs a value (PORT)");
    EXPECT_EQ(flagWithValue.Error(), "option '--verbose' takes no value");
    EXPECT_EQ(extra.Error(), "unexpected argument 'surplus'");
    for (const auto* sut : {&unknown, &missingValue, &flagWithValue, &extra}) {
        EXPECT_EQ(sut->Error().find('\n'), std::string::npos);
    }
}

TEST(CommandLineTest, PositionalsAreCountedAndDoubleDashEndsOptions) {
    CommandLine sut("tool service stop|start NAME", "");
    sut.Positionals("ACTION NAME", 2);
    CommandLine missing("tool clamp on|off", "");
    missing.Positionals("on|off", 1);

    ASSERT_TRUE(sut.Parse({"stop", "--", "--odd-name"}));
    EXPECT_FALSE(missing.Parse({}));

    EXPECT_EQ(sut.PositionalValues(), (std::vector<std::string>{"stop", "--odd-name"}));
    EXPECT_EQ(missing.Error(), "missing on|off");
}

TEST(ParseIntegerTest, AcceptsOnlyWholeNumbersInRange) {
    EXPECT_EQ(ParseInteger("8080", 0, 65535), 8080);
    EXPECT_EQ(ParseInteger("-5", -10, 10), -5);
    EXPECT_EQ(ParseInteger("+5", 0, 10), 5);
    EXPECT_FALSE(ParseInteger("65536", 0, 65535).has_value());
    EXPECT_FALSE(ParseInteger("-1", 0, 65535).has_value());
    EXPECT_FALSE(ParseInteger("12a", 0, 100).has_value());
    EXPECT_FALSE(ParseInteger("", 0, 100).has_value());
    EXPECT_FALSE(ParseInteger("99999999999999999999999", 0, 100).has_value());
}

}  // namespace
}  // namespace sim_common
