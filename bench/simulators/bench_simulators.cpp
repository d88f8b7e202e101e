// How fast the simulators are ready after they are started, and how quietly
// they idle: spawn until the backend accepts connections on the port it
// wrote, and until the vehicle answers on its control socket with its
// services offered; then CPU time, wake-ups and resident memory over a few
// idle seconds. Spawning /bin/true, in the same run, is the reference.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/control_client.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;

constexpr int kRuns = 15;
constexpr auto kIdle = 3s;
const std::map<std::string, std::string> kQuiet = {{"KELVANE_LOG", "none"}};

double Milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Spawn until `ready` holds, polled every 100 us; the process is then stopped.
template <typename Ready>
double TimeToReady(const std::vector<std::string>& argv, Ready ready) {
    const auto start = Clock::now();
    ChildProcess process({argv, kQuiet, ""});
    while (!ready()) {
        if (Clock::now() - start > 10s) {
            std::fprintf(stderr, "%s did not get ready\n", argv[0].c_str());
            std::exit(1);
        }
        std::this_thread::sleep_for(100us);
    }
    const double elapsed = Milliseconds(Clock::now() - start);
    process.Stop(5000ms);
    return elapsed;
}

struct IdleCost {
    double cpuMs = 0;
    double wakeupsPerSecond = 0;
    double rssMiB = 0;
};

/// utime + stime of all threads, in clock ticks.
long CpuTicks(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long utime = 0;
    long stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            utime = std::stol(field);
        } else if (index == 15) {
            stime = std::stol(field);
            break;
        }
    }
    return utime + stime;
}

/// A field of /proc/<pid>/task/<tid>/status summed over the threads, or of the process.
long StatusSum(pid_t pid, const std::string& name, bool threads) {
    std::vector<std::string> files;
    const std::string base = "/proc/" + std::to_string(pid);
    if (threads) {
        DIR* dir = ::opendir((base + "/task").c_str());
        while (dir != nullptr) {
            const dirent* entry = ::readdir(dir);
            if (entry == nullptr) {
                break;
            }
            if (entry->d_name[0] != '.') {
                files.push_back(base + "/task/" + entry->d_name + "/status");
            }
        }
        if (dir != nullptr) {
            ::closedir(dir);
        }
    } else {
        files.push_back(base + "/status");
    }
    long sum = 0;
    for (const auto& file : files) {
        std::ifstream status(file);
        std::string line;
        while (std::getline(status, line)) {
            if (line.compare(0, name.size() + 1, name + ":") == 0) {
                sum += std::stol(line.substr(name.size() + 1));
            }
        }
    }
    return sum;
}

long Wakeups(pid_t pid) {
    return StatusSum(pid, "voluntary_ctxt_switches", true) +
           StatusSum(pid, "nonvoluntary_ctxt_switches", true);
}

IdleCost MeasureIdle(pid_t pid) {
    std::this_thread::sleep_for(500ms);  // let start-up work settle
    const long ticksBefore = CpuTicks(pid);
    const long wakeupsBefore = Wakeups(pid);
    std::this_thread::sleep_for(kIdle);
    IdleCost cost;
    cost.cpuMs = 1000.0 * static_cast<double>(CpuTicks(pid) - ticksBefore) /
                 static_cast<double>(::sysconf(_SC_CLK_TCK));
    cost.wakeupsPerSecond = static_cast<double>(Wakeups(pid) - wakeupsBefore) /
                            std::chrono::duration<double>(kIdle).count();
    cost.rssMiB = static_cast<double>(StatusSum(pid, "VmRSS", false)) / 1024.0;
    return cost;
}

bool PortFileAccepts(const std::string& path) {
    const std::string text = ReadFile(path);
    return !text.empty() &&
           kelvane::testing::AcceptsConnections(static_cast<std::uint16_t>(std::stoi(text)));
}

bool VehicleAnswers(const std::string& socket) {
    std::string reply;
    return vehicle_sim::ControlClient::Send(socket, "ping", reply, 1s) ==
               vehicle_sim::ControlClient::Result::kAnswered &&
           reply == "ok\n";
}

}  // namespace

int main() {
    kelvane::testing::PrivateDbusDaemon bus;
    TemporaryDirectory directory;
    const std::string backend = FindProgram("kelvane-backend-sim");
    const std::string vehicle = FindProgram("kelvane-vehicle-sim");
    const std::string state = directory.File("vehicle");
    ChildProcess init({{vehicle, "init", "--state", state}, kQuiet, directory.File("init.log")});
    if (init.WaitForExit(20s) != 0) {
        std::fprintf(stderr, "init failed: %s\n", ReadFile(directory.File("init.log")).c_str());
        return 1;
    }

    std::vector<double> reference;
    std::vector<double> backendStart;
    std::vector<double> vehicleStart;
    for (int run = 0; run < kRuns; ++run) {
        const auto start = Clock::now();
        ChildProcess trueProcess({{"/bin/true"}, {}, ""});
        trueProcess.WaitForExit(5s);
        reference.push_back(Milliseconds(Clock::now() - start));

        const std::string portFile = directory.File("port" + std::to_string(run));
        backendStart.push_back(TimeToReady({backend, "run", "--port", "0", "--port-file", portFile},
                                           [&] { return PortFileAccepts(portFile); }));
        vehicleStart.push_back(TimeToReady({vehicle, "run", "--state", state}, [&] {
            return VehicleAnswers(state + "/control.sock");
        }));
    }

    const std::string portFile = directory.File("idle-port");
    ChildProcess idleBackend(
        {{backend, "run", "--port", "0", "--port-file", portFile}, kQuiet, ""});
    ChildProcess idleVehicle({{vehicle, "run", "--state", state}, kQuiet, ""});
    while (!PortFileAccepts(portFile) || !VehicleAnswers(state + "/control.sock")) {
        std::this_thread::sleep_for(1ms);
    }
    const IdleCost backendIdle = MeasureIdle(idleBackend.Pid());
    const IdleCost vehicleIdle = MeasureIdle(idleVehicle.Pid());

    const double base = Median(reference);
    std::printf("Start-up, spawn until ready, median of %d runs (target < 100 ms)\n", kRuns);
    std::printf("  %-44s %8.1f ms\n", "reference: /bin/true, spawn until exit", base);
    std::printf("  %-44s %8.1f ms  %6.1fx reference\n", "kelvane-backend-sim run (accepts)",
                Median(backendStart), Median(backendStart) / base);
    std::printf("  %-44s %8.1f ms  %6.1fx reference\n", "kelvane-vehicle-sim run (offered)",
                Median(vehicleStart), Median(vehicleStart) / base);
    std::printf("Idle over %.0f s\n", std::chrono::duration<double>(kIdle).count());
    std::printf("  %-20s CPU %6.1f ms  wake-ups %6.1f/s  RSS %6.1f MiB\n", "kelvane-backend-sim",
                backendIdle.cpuMs, backendIdle.wakeupsPerSecond, backendIdle.rssMiB);
    std::printf("  %-20s CPU %6.1f ms  wake-ups %6.1f/s  RSS %6.1f MiB\n", "kelvane-vehicle-sim",
                vehicleIdle.cpuMs, vehicleIdle.wakeupsPerSecond, vehicleIdle.rssMiB);
    return 0;
}
