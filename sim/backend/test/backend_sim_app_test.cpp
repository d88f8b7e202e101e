#include "backend_sim/backend_sim_app.hpp"

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <sys/socket.h>

#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>

#include "backend_sim/admin_api.hpp"
#include "raw_http_client.hpp"
#include "sim_common/sim_defaults.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/temporary_directory.hpp"

namespace backend_sim {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

/// Subscribed to one topic on the test's broker before the test publishes.
class Subscriber {
public:
    Subscriber(std::uint16_t port, const std::string& topic) {
        mosquitto_lib_init();
        client_ = mosquitto_new(nullptr, true, this);
        mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* self, int, int, const int*) {
            auto* subscriber = static_cast<Subscriber*>(self);
            const std::lock_guard<std::mutex> lock(subscriber->mutex_);
            subscriber->subscribed_ = true;
            subscriber->changed_.notify_all();
        });
        mosquitto_message_callback_set(
            client_, [](mosquitto*, void* self, const mosquitto_message* message) {
                auto* subscriber = static_cast<Subscriber*>(self);
                const std::lock_guard<std::mutex> lock(subscriber->mutex_);
                subscriber->messages_.emplace_back(static_cast<const char*>(message->payload),
                                                   static_cast<std::size_t>(message->payloadlen));
                subscriber->changed_.notify_all();
            });
        mosquitto_connect_callback_set(client_, [](mosquitto* client, void* self, int rc) {
            if (rc == 0) {
                mosquitto_subscribe(client, nullptr, static_cast<Subscriber*>(self)->topic_.c_str(),
                                    1);
            }
        });
        topic_ = topic;
        mosquitto_connect(client_, "127.0.0.1", port, 30);
        mosquitto_loop_start(client_);
    }
    ~Subscriber() {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
    }

    bool WaitSubscribed() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 5s, [this] { return subscribed_; });
    }
    std::optional<std::string> WaitMessage() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, 5s, [this] { return !messages_.empty(); })) {
            return std::nullopt;
        }
        return messages_.front();
    }

private:
    mosquitto* client_ = nullptr;
    std::string topic_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool subscribed_ = false;
    std::vector<std::string> messages_;
};

// The test main silences children's logs; these tests read them.
const std::map<std::string, std::string> kConsoleLog = {{"KELVANE_LOG", "console"}};

struct Outcome {
    int exitCode = -1;
    std::string output;
};

Outcome RunToEnd(std::vector<std::string> arguments) {
    TemporaryDirectory directory;
    arguments.insert(arguments.begin(), FindProgram("kelvane-backend-sim"));
    ChildProcess process({arguments, kConsoleLog, directory.File("output")});
    const auto status = process.WaitForExit(10s);
    return {status.value_or(-1), ReadFile(directory.File("output"))};
}

class BadCommandLine : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(BadCommandLine, ExitsWithUsageCodeAndOneLineReason) {
    const auto outcome = RunToEnd(GetParam());

    EXPECT_EQ(outcome.exitCode, sim_common::kExitUsage);
    EXPECT_EQ(outcome.output.rfind("kelvane-backend-sim: ", 0), 0u) << outcome.output;
    EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 1) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, BadCommandLine,
    ::testing::Values(std::vector<std::string>{}, std::vector<std::string>{"serve"},
                      std::vector<std::string>{"run", "--bogus"},
                      std::vector<std::string>{"run", "extra"},
                      std::vector<std::string>{"run", "--port"},
                      std::vector<std::string>{"run", "--port", "70000"},
                      std::vector<std::string>{"run", "--address", "0.0.0.0"},
                      std::vector<std::string>{"run", "--fault", "download=explode"},
                      std::vector<std::string>{"run", "--config", "/nonexistent/backend.ini"},
                      std::vector<std::string>{"push", "--qos", "3"}));

TEST(BackendSimAppTest, HelpDescribesCommandsAndOptions) {
    const auto overview = RunToEnd({"--help"});
    const auto run = RunToEnd({"run", "--help"});
    const auto push = RunToEnd({"push", "--help"});

    EXPECT_EQ(overview.exitCode, 0);
    EXPECT_NE(overview.output.find("Commands:"), std::string::npos);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.output.find("--port-file FILE"), std::string::npos);
    EXPECT_NE(run.output.find("--fault FAULT"), std::string::npos);
    EXPECT_EQ(push.exitCode, 0);
    EXPECT_NE(push.output.find("--message TEXT"), std::string::npos);
}

TEST(BackendSimAppTest, RunPublishesItsPortServesAndStopsCleanlyOnSigterm) {
    TemporaryDirectory directory;
    const auto portFile = directory.File("port");
    ChildProcess sut({{FindProgram("kelvane-backend-sim"), "run", "--port", "0", "--port-file",
                       portFile, "--event-log", directory.File("events.jsonl")},
                      kConsoleLog,
                      directory.File("output")});

    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(portFile).empty(); }, 5s))
        << ReadFile(directory.File("output"));
    const auto port = static_cast<std::uint16_t>(std::stoi(ReadFile(portFile)));
    testing::RawHttpClient client(port);
    ASSERT_TRUE(client.Send("GET /zelk/dlc/challenge HTTP/1.1\r\nContent-Length: 0\r\n\r\n"));
    const auto reply = client.ReceiveUntilClosed(5s);
    const int exitCode = sut.Stop(5000ms);

    EXPECT_EQ(reply.bytes.rfind("HTTP/1.1 401 ", 0), 0u) << reply.bytes;
    EXPECT_EQ(exitCode, 0);
    const auto output = ReadFile(directory.File("output"));
    EXPECT_NE(output.find("BSIM info Backend simulator listening on http://127.0.0.1:" +
                          std::to_string(port)),
              std::string::npos)
        << output;
    EXPECT_NE(ReadFile(directory.File("events.jsonl")).find(R"("status":401)"), std::string::npos);
}

TEST(BackendSimAppTest, RunOnAPortInUseFails) {
    const int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    socklen_t length = sizeof(address);
    ::getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);

    const auto outcome = RunToEnd({"run", "--port", std::to_string(ntohs(address.sin_port))});
    ::close(blocker);

    EXPECT_EQ(outcome.exitCode, sim_common::kExitFailure);
    EXPECT_NE(outcome.output.find("cannot bind 127.0.0.1:"), std::string::npos) << outcome.output;
}

TEST(BackendSimAppTest, PushCommandReachesASubscriberOfTheInitiationTopic) {
    kelvane::testing::MosquittoBroker broker;
    Subscriber subscriber(broker.Port(), sim_common::kInitiationTopic);
    ASSERT_TRUE(subscriber.WaitSubscribed());

    const auto outcome = RunToEnd(
        {"push", "--mqtt-port", std::to_string(broker.Port()), "--message", "update please"});

    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
    EXPECT_EQ(subscriber.WaitMessage(), "update please");
}

TEST(BackendSimAppTest, PushWithoutABrokerFailsWithTheReason) {
    const auto port = kelvane::testing::FreeTcpPort();

    const auto outcome =
        RunToEnd({"push", "--mqtt-port", std::to_string(port), "--timeout", "2000"});

    EXPECT_EQ(outcome.exitCode, sim_common::kExitFailure);
    EXPECT_NE(outcome.output.find("Push failed: cannot connect to MQTT broker 127.0.0.1:" +
                                  std::to_string(port)),
              std::string::npos)
        << outcome.output;
}

TEST(BackendSimAppTest, AdminPushOfARunningSimulatorReachesTheBroker) {
    kelvane::testing::MosquittoBroker broker;
    Subscriber subscriber(broker.Port(), sim_common::kInitiationTopic);
    ASSERT_TRUE(subscriber.WaitSubscribed());
    TemporaryDirectory directory;
    const auto portFile = directory.File("port");
    ChildProcess sut({{FindProgram("kelvane-backend-sim"), "run", "--port", "0", "--port-file",
                       portFile, "--mqtt-port", std::to_string(broker.Port())},
                      kConsoleLog,
                      directory.File("output")});
    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(portFile).empty(); }, 5s));

    testing::RawHttpClient client(static_cast<std::uint16_t>(std::stoi(ReadFile(portFile))));
    ASSERT_TRUE(client.Send("POST /admin/push HTTP/1.1\r\nContent-Length: 0\r\n\r\n"));
    const auto reply = client.ReceiveUntilClosed(10s);

    EXPECT_EQ(reply.bytes.rfind("HTTP/1.1 204 ", 0), 0u) << reply.bytes;
    EXPECT_EQ(subscriber.WaitMessage(), AdminApi::kDefaultPushMessage);
}

}  // namespace
}  // namespace backend_sim
