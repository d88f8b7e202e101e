// Round trip of one facade call over the bus against a bare sdbus-c++ call of
// the same method on the same bus. The service runs in a child process; both
// clients call it alternately so that machine load affects them alike.
#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "idl/bus_connection.hpp"
#include "tee/zelk_online_update_client.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

namespace {

namespace diag = zelk::interfaces::diagservices;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

class BenchDiagServices : public diag::skeleton::DiagServicesSkeleton {
public:
    ~BenchDiagServices() override { StopOfferService(); }
    void CheckVerificationHash(const Hash&) override {}
    diag::DebugOutput Debug(const Bytes&) override { return {}; }
    diag::GetIdentityHashOutput GetIdentityHash(const Hash& challenge) override {
        return {challenge};
    }
    diag::GetKeyListOutput GetKeyList() override { return {}; }
    diag::GetMissingKeyListOutput GetMissingKeyList() override { return {}; }
    diag::GetPssHashOutput GetPssHash() override {
        diag::GetPssHashOutput output{};
        output.pssHash.fill(0x5a);
        return output;
    }
    diag::GetStatusOutput GetStatus() override { return {0, 0}; }
    diag::GetTrainingCounterOutput GetTrainingCounter() override { return {1}; }
    diag::GetZelkVINOutput GetZelkVIN() override { return {}; }
    void HandleDlc(const Bytes&) override {}
};

/// Serves DiagServices until the parent closes the pipe.
[[noreturn]] void ServeUntilParentLeaves(int fromParent) {
    {
        BenchDiagServices service;
        service.OfferService();
        char byte = 0;
        while (::read(fromParent, &byte, 1) > 0) {
        }
    }
    ::_exit(0);
}

struct Clients {
    std::shared_ptr<qervo::tee::ZELKOnlineUpdateClient> facade;
    std::unique_ptr<sdbus::IConnection> bareConnection;
    std::unique_ptr<sdbus::IProxy> bareProxy;
};
Clients* clients = nullptr;
std::map<std::string, std::vector<double>> samples;  // microseconds per call

void FacadeCall() {
    Bytes pss;
    if (clients->facade->zelk_get_pss_hash(pss) != qervo::tee::ClientError::CLIENT_OK ||
        pss.size() != 16) {
        std::fprintf(stderr, "facade call failed\n");
        std::exit(1);
    }
}

void BareCall() {
    Bytes pss;
    clients->bareProxy->callMethod("GetPssHash")
        .onInterface("zelk.interfaces.diagservices.DiagServices")
        .storeResultsTo(pss);
    if (pss.size() != 16) {
        std::fprintf(stderr, "bare call failed\n");
        std::exit(1);
    }
}

double Percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    return values[index];
}

template <void (*Call)()>
void RoundTrip(benchmark::State& state, const char* name) {
    std::vector<double> round;
    for (auto _ : state) {
        const auto start = Clock::now();
        Call();
        const auto elapsed = std::chrono::duration<double>(Clock::now() - start);
        state.SetIterationTime(elapsed.count());
        round.push_back(elapsed.count() * 1e6);
    }
    state.counters["median_us"] = Percentile(round, 0.5);
    state.counters["p99_us"] = Percentile(round, 0.99);
    auto& all = samples[name];
    all.insert(all.end(), round.begin(), round.end());
}

void BM_BareSdbusCall(benchmark::State& state) {
    RoundTrip<&BareCall>(state, "bare");
}
void BM_FacadeCall(benchmark::State& state) {
    RoundTrip<&FacadeCall>(state, "facade");
}

}  // namespace

int main(int argc, char** argv) {
    ::setenv("KELVANE_LOG_LEVEL", "warning", 0);
    benchmark::Initialize(&argc, argv);
    kelvane::testing::PrivateDbusDaemon bus;

    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        return 1;
    }
    const pid_t server = ::fork();
    if (server == 0) {
        ::close(pipeFds[1]);
        ServeUntilParentLeaves(pipeFds[0]);
    }
    ::close(pipeFds[0]);

    Clients local;
    local.facade = std::make_shared<qervo::tee::ZELKOnlineUpdateClient>();
    local.facade->init();
    local.bareConnection = idl::OpenBusConnection(bus.Address());
    local.bareProxy =
        sdbus::createProxy(*local.bareConnection, "zelk.interfaces.diagservices.DiagServices",
                           "/zelk/interfaces/diagservices/DiagServices");
    local.bareProxy->finishRegistration();
    clients = &local;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    Bytes probe;
    while (local.facade->zelk_get_pss_hash(probe) != qervo::tee::ClientError::CLIENT_OK) {
        if (Clock::now() > deadline) {
            std::fprintf(stderr, "the service did not come up\n");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int i = 0; i < 200; ++i) {  // warm-up: connections, caches, page faults
        FacadeCall();
        BareCall();
    }

    // Ten alternating rounds of 100 calls each: 1000 samples per client.
    for (int round = 0; round < 10; ++round) {
        benchmark::RegisterBenchmark(("BareSdbusCall/round" + std::to_string(round)).c_str(),
                                     BM_BareSdbusCall)
            ->Iterations(100)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("FacadeCall/round" + std::to_string(round)).c_str(),
                                     BM_FacadeCall)
            ->Iterations(100)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const auto& bare = samples["bare"];
    const auto& facade = samples["facade"];
    if (!bare.empty() && !facade.empty()) {
        const double bareMedian = Percentile(bare, 0.5);
        const double facadeMedian = Percentile(facade, 0.5);
        std::printf("\nGetPssHash round trip over %zu calls each:\n", facade.size());
        std::printf("  bare sdbus-c++ : median %7.1f us  p99 %7.1f us\n", bareMedian,
                    Percentile(bare, 0.99));
        std::printf("  facade         : median %7.1f us  p99 %7.1f us\n", facadeMedian,
                    Percentile(facade, 0.99));
        std::printf("  ratio (median) : %.2f (goal <= 1.30)\n", facadeMedian / bareMedian);
        std::printf("  ratio (p99)    : %.2f\n", Percentile(facade, 0.99) / Percentile(bare, 0.99));
    }

    clients = nullptr;
    local.bareProxy.reset();
    local.bareConnection.reset();
    local.facade.reset();
    ::close(pipeFds[1]);
    int status = 0;
    ::waitpid(server, &status, 0);
    return 0;
}
