#include "sim_common/json_line.hpp"

#include <gtest/gtest.h>

namespace sim_common {
namespace {

TEST(JsonLineTest, FieldsAppearInOrderWithTheirTypes) {
    JsonLine inner;
    inner.String("vin", "WKV0SIM0000000001");
    JsonLine sut;

    sut.String("exchange", "download")
        .Number("status", 200)
        .Bool("ok", true)
        .Raw("request", inner.Str());

    EXPECT_EQ(
        sut.Str(),
        R"({"exchange":"download","status":200,"ok":true,"request":{"vin":"WKV0SIM0000000001"}})");
}

TEST(JsonLineTest, AnyByteSequenceBecomesAValidStringLiteral) {
    const std::string bytes = std::string("a\"b\\c\n\r\t") + std::string("\x00\x1f\x7f\xff", 4);

    EXPECT_EQ(JsonLine::Quote(bytes), R"("a\"b\\c\n\r\t\u0000\u001f\u007f\u00ff")");
    EXPECT_EQ(JsonLine::Quote(""), R"("")");
    EXPECT_EQ(JsonLine().Str(), "{}");
}

}  // namespace
}  // namespace sim_common
