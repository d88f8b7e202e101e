// The wire form of the backend's messages: field numbers, empty messages and
// tolerance of fields a newer backend may add.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"

namespace domain::backend::zelkDlc::proto {
namespace {

using namespace std::string_literals;

template <typename Message>
std::string AllFieldsSerialised() {
    Message message;
    message.set_tesmochallenge("c");
    message.set_diagnosticid("d");
    message.set_partnumber("p");
    message.set_tesmoidstring("t");
    message.set_zelkvin("v");
    message.set_ecutrainingcounter("0");
    message.set_psshash("h");
    message.set_identityhash("i");
    return message.SerializeAsString();
}

TEST(BackendMessagesTest, SchemasRegisterUnderTheirOwnFileNamesInOnePackage) {
    const std::pair<const google::protobuf::Descriptor*, const char*> cases[] = {
        {zelkDlcRequestType::descriptor(), "TTVI_CO_zelkDlcRequest_v3.proto"},
        {zelkDlcStatusFeedbackRequestType::descriptor(),
         "TTVI_CO_zelkDlcStatusFeedbackRequest_v3.proto"},
        {zelkDlcChallengeResponseType::descriptor(), "TTVI_CT_zelkDlcChallengeResponse_v3.proto"},
        {zelkDlcResponseType::descriptor(), "TTVI_CT_zelkDlcResponse_v3.proto"}};
    for (const auto& [descriptor, fileName] : cases) {
        EXPECT_EQ(descriptor->file()->name(), fileName);
        EXPECT_EQ(descriptor->file()->package(), "domain.backend.zelkDlc.proto");
    }
}

TEST(BackendMessagesTest, RequestsWithEveryFieldEmptySerialiseToZeroBytes) {
    EXPECT_EQ(zelkDlcRequestType().SerializeAsString(), "");
    EXPECT_EQ(zelkDlcStatusFeedbackRequestType().SerializeAsString(), "");
}

TEST(BackendMessagesTest, RequestFieldsGoOutWithNumbersOneToEightInOrder) {
    const std::string expected =
        "\x0a\x01"
        "c"
        "\x12\x01"
        "d"
        "\x1a\x01"
        "p"
        "\x22\x01"
        "t"
        "\x2a\x01"
        "v"
        "\x32\x01"
        "0"
        "\x3a\x01"
        "h"
        "\x42\x01"
        "i";

    EXPECT_EQ(AllFieldsSerialised<zelkDlcRequestType>(), expected);
    EXPECT_EQ(AllFieldsSerialised<zelkDlcStatusFeedbackRequestType>(), expected);
}

TEST(BackendMessagesTest, ResponsesAreReadByFieldNumber) {
    zelkDlcResponseType download;
    zelkDlcResponseType onlyReturnCode;
    zelkDlcChallengeResponseType challenge;
    zelkDlcChallengeResponseType empty;

    ASSERT_TRUE(
        download.ParseFromString("\x12\x02"
                                 "42"
                                 "\x0a\x04"
                                 "QUJD"));
    ASSERT_TRUE(
        onlyReturnCode.ParseFromString("\x12\x01"
                                       "7"));
    ASSERT_TRUE(
        challenge.ParseFromString("\x0a\x04"
                                  "0A1B"));
    ASSERT_TRUE(empty.ParseFromString(""));

    EXPECT_EQ(download.downloadcontainer(), "QUJD");
    EXPECT_EQ(download.returncode(), "42");
    EXPECT_EQ(onlyReturnCode.downloadcontainer(), "");
    EXPECT_EQ(challenge.tesmochallenge(), "0A1B");
    EXPECT_EQ(empty.tesmochallenge(), "");
}

TEST(BackendMessagesTest, UnknownFieldsInAResponseAreSkipped) {
    // Field 9 varint, field 2 bytes, field 1 the challenge, field 15 fixed32.
    const std::string wire =
        "\x48\x96\x01"
        "\x12\x03"
        "xyz"
        "\x0a\x02"
        "AB"
        "\x7d\x01\x02\x03\x04"s;
    zelkDlcChallengeResponseType challenge;
    zelkDlcResponseType download;

    EXPECT_TRUE(challenge.ParseFromString(wire));
    EXPECT_TRUE(
        download.ParseFromString("\x0a\x02"
                                 "AB"
                                 "\x1a\x01"
                                 "z"s));

    EXPECT_EQ(challenge.tesmochallenge(), "AB");
    EXPECT_EQ(download.downloadcontainer(), "AB");
}

}  // namespace
}  // namespace domain::backend::zelkDlc::proto
