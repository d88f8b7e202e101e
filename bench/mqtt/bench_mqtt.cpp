// The MQTT push path (broker -> host connector -> MqttConnection -> owner) and
// the idle cost of a connected session, each against a plain libmosquitto
// client with its own threaded loop (mosquitto_loop_start) measured in the same
// run. A broker of the benchmark's own runs on loopback.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "csa_common/mqtt_connection.hpp"
#include "csc_logging/csc_logging.hpp"
#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::TemporaryDirectory;

constexpr const char* kTopic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";
constexpr auto kTimeout = 10s;

MosquittoBroker* broker = nullptr;

// Counts deliveries and lets the benchmark wait for the next one.
class Arrivals {
public:
    void Arrived() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool WaitFor(long count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kTimeout, [&] { return count_ >= count; });
    }
    long Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long count_ = 0;
};

// A plain libmosquitto client with the library's own network thread.
class PlainClient {
public:
    explicit PlainClient(const std::string& id, Arrivals* arrivals = nullptr)
        : client_(mosquitto_new(id.c_str(), true, arrivals)) {
        mosquitto_message_callback_set(client_,
                                       [](mosquitto*, void* self, const mosquitto_message*) {
                                           if (self != nullptr) {
                                               static_cast<Arrivals*>(self)->Arrived();
                                           }
                                       });
        mosquitto_subscribe_callback_set(client_, [](mosquitto*, void*, int, int, const int*) {});
        if (mosquitto_connect(client_, "127.0.0.1", broker->Port(), 30) != MOSQ_ERR_SUCCESS ||
            mosquitto_loop_start(client_) != MOSQ_ERR_SUCCESS) {
            throw std::runtime_error("PlainClient: cannot connect");
        }
    }
    ~PlainClient() {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
    }
    void Subscribe() { mosquitto_subscribe(client_, nullptr, kTopic, 1); }
    void Publish(const std::string& payload) {
        mosquitto_publish(client_, nullptr, kTopic, static_cast<int>(payload.size()),
                          payload.data(), 1, false);
    }

private:
    mosquitto* client_;
};

class NullSession : public vi_connector::VISessionCallbackIf {
public:
    void VIConnectorStatus(vi_connector::SessionStatus) override {}
};

class CountingOwner : public csa_common::MqttConnectionCbIf {
public:
    explicit CountingOwner(Arrivals& arrivals) : arrivals_(arrivals) {}
    void MQTTMessageReceivedCb() override { arrivals_.Arrived(); }
    void MQTTResubscribeCb() override { resubscriptions.Arrived(); }
    void MQTTSubscribeFailedCb() override {}
    Arrivals resubscriptions;

private:
    Arrivals& arrivals_;
};

// The client's side: the host connector and the MqttConnection on top, subscribed.
class KelvaneReceiver {
public:
    explicit KelvaneReceiver(Arrivals& arrivals) : owner_(arrivals) {
        const auto config = directory_.Write(
            "vi.ini", "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(broker->Port()) +
                          "\nclient_id=bench-kelvane\nkeep_alive=30\n"
                          "[transaction t]\nurl=http://127.0.0.1:1/\ntoken=x\n");
        connector_ = std::make_shared<vi_connector::VIConnector>(&session_, nullptr, config);
        connector_->Start();
        kelvane::testing::WaitUntil(
            [&] { return connector_->GetSessionStatus() == vi_connector::SessionStatus::kOk; },
            kTimeout);
        connection_ = std::make_unique<csa_common::MqttConnection>(connector_, &owner_);
        connection_->Connect();
        owner_.resubscriptions.WaitFor(1);
        connection_->Subscribe(kTopic);
    }
    ~KelvaneReceiver() { connector_->PubSubDisconnect(); }
    csa_common::MqttConnection& Connection() { return *connection_; }

private:
    TemporaryDirectory directory_;
    NullSession session_;
    CountingOwner owner_;
    std::shared_ptr<vi_connector::VIConnector> connector_;
    std::unique_ptr<csa_common::MqttConnection> connection_;
};

// How often every thread but the calling one was put on a CPU (the third field
// of schedstat): each time is a wake-up.
long OtherThreadsWakeups() {
    long total = 0;
    const std::string self = std::to_string(gettid());
    DIR* tasks = opendir("/proc/self/task");
    while (dirent* entry = readdir(tasks)) {
        const std::string tid = entry->d_name;
        if (tid == "." || tid == ".." || tid == self) {
            continue;
        }
        std::ifstream schedstat("/proc/self/task/" + tid + "/schedstat");
        long runTime = 0;
        long waitTime = 0;
        long timeslices = 0;
        if (schedstat >> runTime >> waitTime >> timeslices) {
            total += timeslices;
        }
    }
    closedir(tasks);
    return total;
}

void PushRoundTrips(benchmark::State& state, const std::function<void()>& drain,
                    Arrivals& arrivals) {
    PlainClient sender("bench-sender");
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    // Until the subscription has reached the broker, messages are lost: prime it.
    for (long tries = 0; arrivals.Count() == 0 && tries < 100; ++tries) {
        sender.Publish(payload);
        std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(100ms);
    long expected = arrivals.Count();
    for (auto _ : state) {
        sender.Publish(payload);
        if (!arrivals.WaitFor(++expected)) {
            state.SkipWithError("message lost");
            break;
        }
        drain();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_PushReceived_kelvane(benchmark::State& state) {
    Arrivals arrivals;
    KelvaneReceiver receiver(arrivals);
    PushRoundTrips(
        state,
        [&] {
            while (receiver.Connection().CheckReceivedUpdate()) {
                benchmark::DoNotOptimize(receiver.Connection().GetReceivedMessage());
            }
        },
        arrivals);
}
BENCHMARK(BM_PushReceived_kelvane)->Arg(64)->Arg(65536)->UseRealTime();

void BM_PushReceived_libmosquitto(benchmark::State& state) {
    Arrivals arrivals;
    PlainClient receiver("bench-reference", &arrivals);
    receiver.Subscribe();
    PushRoundTrips(
        state, [] {}, arrivals);
}
BENCHMARK(BM_PushReceived_libmosquitto)->Arg(64)->Arg(65536)->UseRealTime();

int IdleSeconds() {
    const char* value = std::getenv("KELVANE_BENCH_IDLE_SECONDS");
    return value != nullptr ? std::max(1, std::atoi(value)) : 15;
}

template <typename Session>
void IdleWakeups(benchmark::State& state) {
    for (auto _ : state) {
        Arrivals arrivals;
        Session session(arrivals);
        std::this_thread::sleep_for(1s);  // connected and settled
        const long before = OtherThreadsWakeups();
        std::this_thread::sleep_for(std::chrono::seconds(IdleSeconds()));
        const long wakeups = OtherThreadsWakeups() - before;
        state.counters["wakeups_per_min"] = 60.0 * static_cast<double>(wakeups) / IdleSeconds();
    }
}

struct PlainSession {
    explicit PlainSession(Arrivals& arrivals) : client("bench-idle-reference", &arrivals) {
        client.Subscribe();
    }
    PlainClient client;
};

void BM_IdleWakeups_kelvane(benchmark::State& state) {
    IdleWakeups<KelvaneReceiver>(state);
}
BENCHMARK(BM_IdleWakeups_kelvane)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_IdleWakeups_libmosquitto(benchmark::State& state) {
    IdleWakeups<PlainSession>(state);
}
BENCHMARK(BM_IdleWakeups_libmosquitto)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// Prints the usual table, then ours against the reference.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) {
                continue;
            }
            times_[run.benchmark_name()] = run.GetAdjustedRealTime();
            const auto wakeups = run.counters.find("wakeups_per_min");
            if (wakeups != run.counters.end()) {
                wakeups_[run.benchmark_name()] = wakeups->second.value;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const char* size : {"64", "65536"}) {
            Ratio(std::string("push of ") + size + " bytes, time", times_,
                  std::string("BM_PushReceived_kelvane/") + size + "/real_time",
                  std::string("BM_PushReceived_libmosquitto/") + size + "/real_time");
        }
        Ratio("idle wake-ups per minute", wakeups_, "BM_IdleWakeups_kelvane/iterations:1/real_time",
              "BM_IdleWakeups_libmosquitto/iterations:1/real_time");
        std::fflush(stdout);
    }

private:
    static void Ratio(const std::string& what, const std::map<std::string, double>& values,
                      const std::string& ours, const std::string& reference) {
        const auto a = values.find(ours);
        const auto b = values.find(reference);
        if (a != values.end() && b != values.end() && b->second > 0) {
            std::printf("%s: kelvane %.1f, libmosquitto threaded loop %.1f, ratio %.2f\n",
                        what.c_str(), a->second, b->second, a->second / b->second);
        }
    }

    std::map<std::string, double> times_;
    std::map<std::string, double> wakeups_;
};

}  // namespace

int main(int argc, char** argv) {
    setenv("KELVANE_LOG", "none", 0);
    csc_logging::CSCLogging::InitLogging("KV");
    mosquitto_lib_init();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    MosquittoBroker ownBroker;
    broker = &ownBroker;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    broker = nullptr;
    mosquitto_lib_cleanup();
    return 0;
}
