#include "vehicle_sim/vehicle_runtime.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <sstream>

#include "ara/core/exception.hpp"
#include "clampcontrolclient/clamp_control_service.hpp"
#include "csc_logging/csc_logging.hpp"
#include "diag_services_impl.hpp"
#include "generic_uds_impl.hpp"
#include "idl/bus_connection.hpp"
#include "sim_common/atomic_file.hpp"
#include "sim_common/hex.hpp"
#include "sim_common/json.hpp"
#include "type_id_access_impl.hpp"
#include "vehicle_sim/certificate_factory.hpp"
#include "vehicle_sim/control_server.hpp"

namespace vehicle_sim {

using csc_logging::CSCLogging;

namespace {

constexpr const char* kServiceNames[] = {"DiagServices", "TypeIdAccess", "GenericUDSService",
                                         "ClampControl"};

std::string IsoTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string Ok(const std::string& text = "") {
    return "ok\n" + text;
}
std::string Refuse(const std::string& reason) {
    return "error: " + reason + "\n";
}

}  // namespace

/// The four services on the bus and which of them are offered.
class VehicleRuntime::Services {
public:
    Services(Vehicle& vehicle, FailPoints& failPoints, bool clamp15On)
        : diag_(vehicle, failPoints)
        , typeIds_(vehicle, failPoints)
        , uds_(vehicle, failPoints)
        , clamp_(clamp15On) {}

    ~Services() {
        for (const char* name : kServiceNames) {
            std::string ignored;
            SetOffered(name, false, ignored);
        }
    }

    /// False with a reason when the bus refuses.
    bool SetOffered(const std::string& name, bool offered, std::string& error) {
        const std::lock_guard<std::mutex> lock(mutex_);
        try {
            if (name == "DiagServices") {
                offered ? diag_.OfferService() : diag_.StopOfferService();
            } else if (name == "TypeIdAccess") {
                offered ? typeIds_.OfferService() : typeIds_.StopOfferService();
            } else if (name == "GenericUDSService") {
                offered ? uds_.OfferService() : uds_.StopOfferService();
            } else {
                offered ? clamp_.Offer() : clamp_.StopOffer();
            }
        } catch (const std::exception& exception) {
            error = "cannot " + std::string(offered ? "offer " : "withdraw ") + name + ": " +
                    exception.what();
            return false;
        }
        const bool changed = offered_[name] != offered;
        offered_[name] = offered;
        if (changed) {
            CSCLogging::Info(name + (offered ? " offered" : " withdrawn"));
        }
        return true;
    }

    bool IsOffered(const std::string& name) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto it = offered_.find(name);
        return it != offered_.end() && it->second;
    }

    clampcontrolclient::ClampControlService& Clamp() { return clamp_; }

private:
    DiagServicesImpl diag_;
    TypeIdAccessImpl typeIds_;
    GenericUdsImpl uds_;
    clampcontrolclient::ClampControlService clamp_;
    mutable std::mutex mutex_;
    std::map<std::string, bool> offered_;
};

VehicleRuntime::VehicleRuntime(Options options) : options_(std::move(options)) {}

VehicleRuntime::~VehicleRuntime() {
    Stop();
}

bool VehicleRuntime::Start(std::string& error) {
    for (const auto& definition : options_.failPoints) {
        if (!failPoints_.Add(definition, error)) {
            return false;
        }
    }
    // A missing or broken state is the likelier problem, and its message the more useful.
    if (!VehicleState::Load(options_.directory, error)) {
        return false;
    }
    const std::string lockPath = options_.directory + "/" + kLockName;
    lockFd_.Reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lockFd_ || ::flock(lockFd_.Get(), LOCK_EX | LOCK_NB) != 0) {
        error = !lockFd_ ? "cannot open " + lockPath + ": " + std::strerror(errno)
                         : "another kelvane-vehicle-sim runs on " + options_.directory;
        Stop();
        return false;
    }
    // Read again under the lock: an instance that just ended may have written.
    auto state = VehicleState::Load(options_.directory, error);
    if (!state) {
        Stop();
        return false;
    }
    // Only a writer killed mid-way leaves these; we hold the lock, so none is running.
    sim_common::RemoveStaleTemporaries(options_.directory + "/" + VehicleState::kFileName);
    vehicle_ = std::make_unique<Vehicle>(options_.directory, std::move(*state),
                                         options_.challengeLifetime);
    try {
        services_ = std::make_unique<Services>(*vehicle_, failPoints_, options_.clamp15On);
    } catch (const std::exception& exception) {
        error = "cannot reach the bus " + idl::BusAddress() + ": " + exception.what();
        Stop();
        return false;
    }
    for (const char* name : kServiceNames) {
        if (!services_->SetOffered(name, true, error)) {
            Stop();
            return false;
        }
    }
    control_ = std::make_unique<ControlServer>(
        options_.directory + "/" + kSocketName,
        [this](const std::string& command) { return Command(command); });
    if (!control_->Start(error)) {
        Stop();
        return false;
    }
    return true;
}

void VehicleRuntime::Stop() {
    // Commands come from the control thread: it ends before what they touch goes.
    control_.reset();
    services_.reset();
    lockFd_.Reset();
}

std::string VehicleRuntime::Command(const std::string& command) {
    std::istringstream words(command);
    std::string verb;
    std::string argument;
    std::string extra;
    words >> verb >> argument;
    std::getline(words, extra);
    const auto trailing = extra.find_first_not_of(' ');
    extra = trailing == std::string::npos ? "" : extra.substr(trailing);
    if (!services_ || !vehicle_) {
        return Refuse("the simulator is not running");
    }
    if (verb == "ping" && argument.empty()) {
        return Ok();
    }
    if (verb == "status" && argument.empty()) {
        return Ok(StatusJson(vehicle_->State(), options_.directory, this) + "\n");
    }
    if (verb == "clamp" && (argument == "on" || argument == "off") && extra.empty()) {
        services_->Clamp().SetClampState(argument == "on");
        CSCLogging::Info("Clamp 15 " + argument);
        return Ok();
    }
    if (verb == "service" && (argument == "stop" || argument == "start") && !extra.empty()) {
        return ServiceCommand(argument, extra);
    }
    if (verb == "fail" && argument == "clear" && extra.empty()) {
        failPoints_.Clear();
        return Ok();
    }
    if (verb == "fail" && !argument.empty() && extra.empty()) {
        std::string error;
        if (!failPoints_.Add(argument, error)) {
            return Refuse(error);
        }
        CSCLogging::Info("Fail point armed: " + argument);
        return Ok();
    }
    return Refuse("unknown command '" + command +
                  "' (ping, status, clamp on|off, service stop|start NAME, fail POINT|clear)");
}

std::string VehicleRuntime::ServiceCommand(const std::string& action, const std::string& name) {
    std::vector<std::string> names;
    if (name == "all") {
        names.assign(std::begin(kServiceNames), std::end(kServiceNames));
    } else {
        for (const char* known : kServiceNames) {
            if (name == known) {
                names.push_back(known);
            }
        }
    }
    if (names.empty()) {
        return Refuse("unknown service '" + name +
                      "' (DiagServices, TypeIdAccess, GenericUDSService, ClampControl or all)");
    }
    for (const auto& service : names) {
        std::string error;
        if (!services_->SetOffered(service, action == "start", error)) {
            return Refuse(error);
        }
    }
    return Ok();
}

std::string VehicleRuntime::StatusJson(const VehicleState& state, const std::string& directory,
                                       const VehicleRuntime* runtime) {
    sim_common::Json json = {{"running", runtime != nullptr},
                             {"stateDirectory", directory},
                             {"vin", state.vin},
                             {"trainingCounter", state.trainingCounter},
                             {"pssHash", sim_common::ToHex(sim_common::PssHash(state.keys))},
                             {"partNumber", state.partNumber},
                             {"certificateFormat", state.pemCertificates ? "pem" : "der"},
                             {"identityFile", directory + "/" + VehicleState::kIdentityFileName}};
    try {
        json["baseCertificateNotAfter"] =
            IsoTime(CertificateFactory::NotAfter(state.baseCertificate));
    } catch (const std::exception& exception) {
        json["baseCertificateNotAfter"] = std::string("unreadable: ") + exception.what();
    }
    if (runtime != nullptr && runtime->services_) {
        json["clamp15"] = runtime->services_->Clamp().ClampState();
        for (const char* name : kServiceNames) {
            json["services"][name] = runtime->services_->IsOffered(name);
        }
        json["failPoints"] = runtime->failPoints_.Pending();
        json["bus"] = idl::BusAddress();
    }
    return sim_common::JsonText(json);
}

}  // namespace vehicle_sim
