#include "vehicle_sim/vehicle_sim_app.hpp"

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"
#include "sim_common/atomic_file.hpp"
#include "sim_common/command_line.hpp"
#include "sim_common/sim_defaults.hpp"
#include "sim_common/vehicle_keys.hpp"
#include "vehicle_sim/certificate_factory.hpp"
#include "vehicle_sim/control_client.hpp"
#include "vehicle_sim/vehicle_runtime.hpp"
#include "vehicle_sim/vehicle_state.hpp"

namespace vehicle_sim {
namespace {

using csc_logging::CSCLogging;
using sim_common::kExitFailure;
using sim_common::kExitOk;
using sim_common::kExitUsage;

constexpr const char* kProgram = "kelvane-vehicle-sim";

const char* const kOverview =
    "Usage: kelvane-vehicle-sim COMMAND [OPTIONS]\n"
    "\n"
    "A stand-in for the vehicle around kelvane-client: the key-management\n"
    "services (DiagServices, TypeIdAccess, GenericUDSService) and the clamp\n"
    "control service on D-Bus, over a key store kept in a state directory.\n"
    "\n"
    "Commands:\n"
    "  init                      create a state directory (VIN, keys, certificates)\n"
    "  run                       offer the services until SIGINT or SIGTERM\n"
    "  status                    show the state (and services, when running)\n"
    "  clamp on|off              switch Clamp 15 of the running simulator\n"
    "  service stop|start NAME   withdraw or offer a service of the running simulator\n"
    "  fail POINT|clear           arm or clear fail points of the running simulator\n"
    "\n"
    "Every command takes --state DIR (default $KELVANE_VEHICLE_STATE, else\n"
    "./vehicle-state). 'kelvane-vehicle-sim COMMAND --help' shows its options.\n"
    "The bus: KELVANE_DBUS_ADDRESS, else the system bus.\n"
    "Exit codes: 0 success, 1 failure, 2 bad command line.\n";

int UsageError(const std::string& reason) {
    std::cerr << kProgram << ": " << reason << " (see '" << kProgram << " --help')" << std::endl;
    return kExitUsage;
}

int Failure(const std::string& reason) {
    std::cerr << kProgram << ": " << reason << std::endl;
    return kExitFailure;
}

std::string DefaultStateDirectory() {
    const char* fromEnvironment = std::getenv("KELVANE_VEHICLE_STATE");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                  : "vehicle-state";
}

std::string IsoTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

bool IsPrintable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

/// Parses a command's arguments; returns an exit code when the command is done.
std::optional<int> ParseCommandLine(CLI::App& command, const std::vector<std::string>& arguments) {
    std::string error;
    const auto done = sim_common::ParseCommand(command, arguments, error);
    if (done && !error.empty()) {
        return UsageError(error);
    }
    return done;
}

int Init(const std::vector<std::string>& arguments) {
    std::string directory = DefaultStateDirectory();
    std::string vin = sim_common::kDefaultVin;
    std::string secret = sim_common::kDefaultSecret;
    int counter = 0;
    int days = 200;
    std::string partNumber = "8W0907468A";
    std::string tesmoId;
    std::string certificateFormat = "der";
    bool force = false;
    CLI::App command(
        "Creates a state directory: the key store (VIN, training counter,\n"
        "generation keys derived from the shared secret, a root and a Base\n"
        "certificate) and the identity file (the TESMO id string).",
        std::string(kProgram) + " init");
    command.add_option("--state", directory, "state directory to create")->option_text("DIR");
    command.add_option("--vin", vin, "17 digits or capitals (default WKV0SIM0000000001)")
        ->option_text("VIN");
    command.add_option("--secret", secret, "shared secret, as the backend simulator's")
        ->option_text("TEXT");
    command
        .add_option("--training-counter", counter, "initial training counter 0-65535 (default 0)")
        ->option_text("N")
        ->check(CLI::Range(0, 0xFFFF));
    command
        .add_option("--base-cert-days", days,
                    "remaining life of the Base certificate, negative = expired (default 200)")
        ->option_text("DAYS")
        ->check(CLI::Range(-3650, 7300));
    command.add_option("--part-number", partNumber, "spare-part number (default 8W0907468A)")
        ->option_text("TEXT");
    command.add_option("--tesmo-id", tesmoId, "TESMO identification string (default TESMO-<VIN>)")
        ->option_text("TEXT");
    command
        .add_option("--cert-format", certificateFormat,
                    "how certificates are handed out (default der)")
        ->option_text("der|pem")
        ->check(CLI::IsMember({"der", "pem"}));
    command.add_flag("--force", force, "replace an existing state");
    if (const auto done = ParseCommandLine(command, arguments)) {
        return *done;
    }
    if (!sim_common::IsValidVin(vin)) {
        return UsageError("bad VIN '" + vin + "' (17 digits or capitals)");
    }
    if (secret.empty()) {
        return UsageError("the secret must not be empty");
    }
    if (partNumber.empty() || !IsPrintable(partNumber)) {
        return UsageError("bad part number (printable ASCII, not empty)");
    }
    if (tesmoId.empty()) {
        tesmoId = "TESMO-" + vin;
    }
    if (!IsPrintable(tesmoId)) {
        return UsageError("bad TESMO id (printable ASCII)");
    }

    const std::string keystore = directory + "/" + VehicleState::kFileName;
    struct stat info {};
    if (::stat(keystore.c_str(), &info) == 0 && !force) {
        return Failure(directory + " already holds a key store (--force replaces it)");
    }
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        return Failure("cannot create " + directory + ": " + std::strerror(errno));
    }
    const auto now = std::chrono::system_clock::now();
    VehicleState state;
    state.vin = vin;
    state.trainingCounter = static_cast<std::uint16_t>(counter);
    state.keys = sim_common::DeriveVehicleKeys(secret, vin, state.trainingCounter);
    state.partNumber = partNumber;
    state.pemCertificates = certificateFormat == "pem";
    const auto root = CertificateFactory::MakeRoot(vin, now);
    const auto base =
        CertificateFactory::MakeBase(root, vin, now, now + std::chrono::hours(24) * days);
    state.rootKey = root.privateKey;
    state.rootCertificate = root.certificate;
    state.baseKey = base.privateKey;
    state.baseCertificate = base.certificate;
    std::string error;
    const std::string identityFile = directory + "/" + VehicleState::kIdentityFileName;
    if (!sim_common::WriteFileAtomically(identityFile, tesmoId, error) ||
        !state.Save(directory, error)) {
        return Failure(error);
    }
    std::cout << "Vehicle state created in " << directory << "\n"
              << "  VIN                  " << vin << "\n"
              << "  training counter     " << state.trainingCounter << "\n"
              << "  Base certificate     valid until "
              << IsoTime(CertificateFactory::NotAfter(state.baseCertificate)) << "\n"
              << "  identity file        " << identityFile << "\n";
    return kExitOk;
}

int Run(const std::vector<std::string>& arguments) {
    VehicleRuntime::Options options;
    options.directory = DefaultStateDirectory();
    std::string clamp = "off";
    int lifetime = 600;
    CLI::App command(
        "Offers DiagServices, TypeIdAccess, GenericUDSService and ClampControl\n"
        "on the bus until SIGINT or SIGTERM, and a control socket in the state\n"
        "directory for the clamp, status, service and fail commands.\n"
        "Fail points: NAME[=ERROR][:COUNT], NAME one of HandleDlc,\n"
        "GetIdentityHash, GetPssHash, GetTrainingCounter, GetZelkVIN,\n"
        "GetCertificate, HandleMessage (ERROR: an application error of its\n"
        "interface) or persist (the next key-store write fails); COUNT how\n"
        "many calls it hits (default 1) or *.",
        std::string(kProgram) + " run");
    command.add_option("--state", options.directory, "state directory made by init")
        ->option_text("DIR");
    command.add_option("--clamp", clamp, "Clamp 15 at start (default off)")
        ->option_text("on|off")
        ->check(CLI::IsMember({"on", "off"}));
    command
        .add_option("--challenge-lifetime", lifetime,
                    "how long a hashed challenge stays good for a container (default 600)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1, 86400));
    command
        .add_option("--fail", options.failPoints,
                    "arm a fail point, e.g. HandleDlc=ZELK_ERROR_BUSY:2")
        ->option_text("POINT");
    if (const auto done = ParseCommandLine(command, arguments)) {
        return *done;
    }
    options.challengeLifetime = std::chrono::seconds(lifetime);
    options.clamp15On = clamp == "on";
    FailPoints check;
    for (const auto& definition : options.failPoints) {
        std::string error;
        if (!check.Add(definition, error)) {
            return UsageError(error);
        }
    }

    // Every thread started from here on inherits the blocked signals, so
    // that only sigwait below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    CSCLogging::InitLogging("VSIM", "kelvane vehicle simulator");
    VehicleRuntime runtime(options);
    std::string error;
    if (!runtime.Start(error)) {
        CSCLogging::Error(error);
        return kExitFailure;
    }
    const auto state = VehicleState::Load(options.directory, error);
    CSCLogging::Info(csc_logging::CSCLogEntry()
                     << "Vehicle simulator running: VIN " << state->vin << ", training counter "
                     << state->trainingCounter << ", Base certificate valid until "
                     << IsoTime(CertificateFactory::NotAfter(state->baseCertificate))
                     << ", Clamp 15 " << clamp << ", bus " << idl::BusAddress());
    int received = 0;
    sigwait(&signals, &received);
    CSCLogging::Info(std::string("Vehicle simulator stopping on ") + ::strsignal(received));
    runtime.Stop();
    return kExitOk;
}

/// clamp, status, service and fail: one command to the running simulator.
int Remote(const std::string& name, const std::vector<std::string>& arguments) {
    std::string directory = DefaultStateDirectory();
    std::string synopsis;
    std::string description;
    int positionals = 0;
    if (name == "clamp") {
        synopsis = "clamp on|off";
        description = "Switches Clamp 15 of the running simulator.";
        positionals = 1;
    } else if (name == "service") {
        synopsis = "service stop|start NAME";
        description =
            "Withdraws or offers a service of the running simulator: DiagServices,\n"
            "TypeIdAccess, GenericUDSService, ClampControl or all.";
        positionals = 2;
    } else if (name == "fail") {
        synopsis = "fail POINT|clear";
        description =
            "Arms a fail point of the running simulator (see 'run --help'), or\n"
            "clears them all.";
        positionals = 1;
    } else {
        synopsis = "status";
        description =
            "Prints the state as one JSON object; with the services, the clamp and the\n"
            "fail points when the simulator runs.";
    }
    std::vector<std::string> values;
    CLI::App parser(description, std::string(kProgram) + " " + name);
    parser.add_option("--state", directory, "state directory of the simulator")->option_text("DIR");
    if (positionals > 0) {
        parser.add_option("arguments", values, "")
            ->option_text(synopsis.substr(synopsis.find(' ') + 1))
            ->expected(positionals)
            ->required();
    }
    if (const auto done = ParseCommandLine(parser, arguments)) {
        return *done;
    }
    if (name == "clamp" && values[0] != "on" && values[0] != "off") {
        return UsageError("clamp takes on or off, not '" + values[0] + "'");
    }
    if (name == "service" && values[0] != "stop" && values[0] != "start") {
        return UsageError("service takes stop or start, not '" + values[0] + "'");
    }
    std::string command = name;
    for (const auto& value : values) {
        command += " " + value;
    }
    std::string reply;
    const auto result =
        ControlClient::Send(directory + "/" + VehicleRuntime::kSocketName, command, reply);
    if (result == ControlClient::Result::kNotRunning) {
        if (name != "status") {
            return Failure("no simulator runs on " + directory);
        }
        std::string error;
        const auto state = VehicleState::Load(directory, error);
        if (!state) {
            return Failure(error);
        }
        std::cout << VehicleRuntime::StatusJson(*state, directory, nullptr) << std::endl;
        return kExitOk;
    }
    if (result == ControlClient::Result::kFailed) {
        return Failure(reply);
    }
    if (reply.compare(0, 3, "ok\n") == 0) {
        std::cout << reply.substr(3);
        return kExitOk;
    }
    if (!reply.empty() && reply.back() == '\n') {
        reply.pop_back();
    }
    return Failure(reply.compare(0, 7, "error: ") == 0 ? reply.substr(7) : reply);
}

}  // namespace

int VehicleSimMain(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        return UsageError("missing command (init, run, status, clamp, service or fail)");
    }
    const std::string& command = arguments[0];
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (command == "--help" || command == "-h" || command == "help") {
        std::cout << kOverview;
        return kExitOk;
    }
    if (command == "--version") {
        std::cout << kProgram << " " << KELVANE_VERSION << std::endl;
        return kExitOk;
    }
    if (command == "init") {
        return Init(rest);
    }
    if (command == "run") {
        return Run(rest);
    }
    if (command == "status" || command == "clamp" || command == "service" || command == "fail") {
        return Remote(command, rest);
    }
    return UsageError("unknown command '" + command +
                      "' (init, run, status, clamp, service or fail)");
}

}  // namespace vehicle_sim
