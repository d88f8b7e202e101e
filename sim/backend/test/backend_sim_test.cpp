#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>

#include "backend_sim/backend_service.hpp"
#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "sim_common/hex.hpp"
#include "sim_common/sim_defaults.hpp"
#include "sim_common/vehicle_keys.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/temporary_directory.hpp"
#include "unique_fd/unique_fd.hpp"

namespace backend_sim {
namespace {

namespace pb = domain::backend::zelkDlc::proto;
using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::ReadFile;

struct Reply {
    std::string bytes;
    bool closed = false;
};

std::string Request(const std::string& line, const std::string& headers,
                    const std::string& body = "") {
    return line + " HTTP/1.1\r\nHost: [::1]\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Vehicle(const char* contentType, const std::string& token = "kelvane-demo-token") {
    return std::string("Content-Type: ") + contentType + "\r\nAuthorization: Bearer " + token +
           "\r\n";
}

std::string Arm(const std::string& faults) {
    return Request("POST /admin/fault", "", faults);
}

const std::string kChallenge = Request("GET /zelk/dlc/challenge", Vehicle(kChallengeRequestType));
const std::string kFeedback = Request("POST /zelk/dlc/feedback", Vehicle(kFeedbackRequestType));

// One simulator on ::1 per test, pushing to a port where no broker listens.
class BackendSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return !ReadFile(portFile_).empty(); }, 5s))
            << ReadFile(dir_.File("output"));
        port_ = static_cast<std::uint16_t>(std::stoi(ReadFile(portFile_)));
    }
    void TearDown() override { EXPECT_EQ(sut_.Stop(5000ms), 0); }

    /// Sends the bytes as they are; reads until the server closes or is `quiet` that long.
    Reply Send(const std::string& request, std::chrono::milliseconds quiet = 10s) const {
        const unique_fd::UniqueFd fd(kelvane::testing::ConnectOnLoopback(port_, true));
        Reply reply;
        char buffer[4096];
        pollfd readable{fd.Get(), POLLIN, 0};
        if (fd && ::send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(request.size())) {
            while (!reply.closed && reply.bytes.size() < 65536 &&
                   ::poll(&readable, 1, static_cast<int>(quiet.count())) > 0) {
                const ssize_t n = ::recv(fd.Get(), buffer, sizeof(buffer), 0);
                reply.closed = n <= 0;
                reply.bytes.append(buffer, reply.closed ? 0 : static_cast<std::size_t>(n));
            }
        }
        return reply;
    }

    kelvane::testing::TemporaryDirectory dir_;
    std::string portFile_ = dir_.File("port");
    std::string eventLog_ = dir_.File("events.jsonl");
    std::uint16_t mqttPort_ = kelvane::testing::FreeTcpPort();
    ChildProcess sut_{{{FindProgram("kelvane-backend-sim"), "run", "--address", "::1", "--port",
                        "0", "--port-file", portFile_, "--event-log", eventLog_, "--mqtt-port",
                        std::to_string(mqttPort_)},
                       {{"KELVANE_LOG", "console"}},
                       dir_.File("output")}};
    std::uint16_t port_ = 0;
};

TEST_F(BackendSimTest, RefusesToListenBeyondLoopback) {
    ChildProcess refused({{FindProgram("kelvane-backend-sim"), "run", "--address", "0.0.0.0"},
                          {{"KELVANE_LOG", "console"}},
                          dir_.File("refused")});

    EXPECT_EQ(refused.WaitForExit(10s), sim_common::kExitUsage);
    EXPECT_EQ(ReadFile(dir_.File("refused")),
              "kelvane-backend-sim: refusing to listen on '0.0.0.0': the simulator binds loopback "
              "addresses only (127.0.0.1, ::1) (see 'kelvane-backend-sim --help')\n");
}

// In order: each request against what the simulator has been told before it.
TEST_F(BackendSimTest, EveryEndpointAndFaultAnswersExactlyOnTheWire) {
    const auto issued = Send(kChallenge).bytes;
    const auto challenge = issued.substr(issued.size() - 32);
    const auto download = [](const std::string& tesmoChallenge, const std::string& identityHash) {
        pb::zelkDlcRequestType message;
        message.set_tesmochallenge(tesmoChallenge);
        message.set_zelkvin(sim_common::kDefaultVin);
        message.set_ecutrainingcounter("0000");
        message.set_identityhash(identityHash);
        return Request("POST /zelk/dlc/download", Vehicle(kDownloadRequestType),
                       message.SerializeAsString());
    };
    const auto identityHash = sim_common::ToHex(sim_common::IdentityHash(
        sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, sim_common::kDefaultVin, 0),
        *sim_common::FromHex(challenge)));
    const struct {
        std::string request;
        const char* reply;  // ECMAScript pattern for the whole reply
        bool closes = true;
    } rows[] = {
        {kChallenge,
         R"(^HTTP/1\.1 200 OK\r\nContent-Type: application/TTVI_CT_zelkDlcChallengeResponse_v3\+proto\r\nServer: kelvane-backend-sim\r\nConnection: close\r\nContent-Length: 34\r\n\r\n\n [0-9A-F]{32}$)"},
        {Request("GET /zelk/dlc/challenge", Vehicle(kChallengeRequestType, "other")),
         R"(^HTTP/1\.1 401 Unauthorized\r\n[\s\S]*WWW-Authenticate: Bearer\r\n[\s\S]*wrong bearer token\n$)"},
        {Request("POST /zelk/dlc/challenge", Vehicle(kChallengeRequestType)),
         R"(^HTTP/1\.1 405 Method Not Allowed\r\n[\s\S]*Allow: GET\r\n)"},
        {Request("GET /zelk/dlc/challenge", Vehicle(kDownloadRequestType)),
         R"(^HTTP/1\.1 415 Unsupported Media)"},
        {Request("GET /zelk/dlc/challenge",
                 "Accept: text/html\r\n" + Vehicle(kChallengeRequestType)),
         R"(^HTTP/1\.1 406 Not Acceptable\r\n)"},
        {Request("POST /zelk/dlc/download", Vehicle(kDownloadRequestType), "x"),
         R"(^HTTP/1\.1 400 Bad Request\r\n[\s\S]*body is not a zelkDlcRequestType message\n$)"},
        {download(std::string(32, '0'), identityHash),
         R"(^HTTP/1\.1 400 [\s\S]*unknown challenge '0{32}'\n$)"},
        {download(challenge, std::string(32, '0')), R"(^HTTP/1\.1 403 Forbidden\r\n)"},
        {download(challenge, identityHash),
         R"(^HTTP/1\.1 200 OK\r\nContent-Type: application/TTVI_CT_zelkDlcResponse_v3\+proto\r\n)"},
        {download(challenge, identityHash), R"(^HTTP/1\.1 409 Conflict\r\n)"},
        {kFeedback, R"(^HTTP/1\.1 204 No Content\r\n(?![\s\S]*Content-Length)[\s\S]*\r\n\r\n$)"},
        {Request("GET /zelk/other", ""), R"(^HTTP/1\.1 404 Not Found\r\n)"},
        {"HELLO THERE\r\n\r\n", R"(^HTTP/1\.1 400 Bad Request\r\nContent-Length: 0\r\n)"},
        {Arm("challenge=status:503\nchallenge=boom"),
         R"(^HTTP/1\.1 400 [\s\S]*unknown fault 'boom')"},
        {kChallenge, R"(^HTTP/1\.1 200 OK\r\n)"},  // nothing of a refused plan is armed
        {Arm("challenge=status:999:2\nfeedback=keep-open"), R"(^HTTP/1\.1 204 )"},
        {Request("GET /admin/faults", ""),
         R"(^HTTP/1\.1 200 [\s\S]*\r\n\r\nchallenge=status:999:2\nfeedback=keep-open:1\n$)"},
        {kChallenge, R"(^HTTP/1\.1 999 Injected Fault\r\n)"},
        {kChallenge, R"(^HTTP/1\.1 999 Injected Fault\r\n)"},
        {kChallenge, R"(^HTTP/1\.1 200 OK\r\n)"},
        {kFeedback, R"(^HTTP/1\.1 204 No Content\r\n(?![\s\S]*Connection: close)[\s\S]*\r\n\r\n$)",
         false},
        {Arm("feedback=close:*"), R"(^HTTP/1\.1 204 )"},
        {kFeedback, R"(^$)"},
        {Request("DELETE /admin/faults", ""), R"(^HTTP/1\.1 204 )"},
        {kFeedback, R"(^HTTP/1\.1 204 )"},
        {Arm("challenge=empty-body\nchallenge=garbage-body"), R"(^HTTP/1\.1 204 )"},
        {kChallenge, R"(^HTTP/1\.1 200 OK\r\n[\s\S]*Content-Length: 0\r\n\r\n$)"},
        {kChallenge,
         R"(^HTTP/1\.1 200 OK\r\n[\s\S]*\r\n\r\n\n\x7Fthis is not a protobuf message$)"},
        {Arm("feedback=continue\nfeedback=no-digits"), R"(^HTTP/1\.1 204 )"},
        {kFeedback, R"(^HTTP/1\.1 100 Continue\r\n\r\nHTTP/1\.1 204 No Content\r\n)"},
        {kFeedback, R"(^HTTP/1\.1 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n$)"},
        {Arm("challenge=hang"), R"(^HTTP/1\.1 204 )"},
        {kChallenge, R"(^$)", false},
        {Request("POST /admin/push", ""),
         R"(^HTTP/1\.1 502 Bad Gateway\r\n[\s\S]*cannot connect to MQTT)"},
        {Request("GET /admin/status", ""), R"(^HTTP/1\.1 200 OK\r\n[\s\S]*"faults":\[\])"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.request);

        const auto reply = Send(row.request, row.closes ? 10s : 500ms);

        EXPECT_TRUE(std::regex_search(reply.bytes, std::regex(row.reply))) << reply.bytes;
        EXPECT_EQ(reply.closed, row.closes);
    }
    const auto events = ReadFile(eventLog_);
    EXPECT_NE(events.find(R"("fault":"status:999","status":999)"), std::string::npos) << events;
    // Every connection counts, a silent one too: the challenge, the rows, this one.
    Send("", 100ms);
    EXPECT_NE(Send(Request("GET /admin/status", ""))
                  .bytes.find("\"connections\":" + std::to_string(std::size(rows) + 3)),
              std::string::npos);
}

}  // namespace
}  // namespace backend_sim
