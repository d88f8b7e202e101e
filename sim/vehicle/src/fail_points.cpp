#include "vehicle_sim/fail_points.hpp"

#include <utility>

#include "ac/dm/genericuds/genericuds_common.hpp"
#include "sim_common/parse_integer.hpp"
#include "zelk/interfaces/diagservices/diagservices_common.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_common.hpp"

namespace vehicle_sim {
namespace {

using Errors = std::vector<std::pair<const char*, std::int32_t>>;

template <typename Errc>
std::pair<const char*, std::int32_t> E(const char* name, Errc errc) {
    return {name, static_cast<std::int32_t>(errc)};
}

const Errors& DiagErrors() {
    using zelk::interfaces::diagservices::DiagServicesErrc;
#define DIAG(name) E(#name, DiagServicesErrc::name)
    static const Errors errors = {
        DIAG(ZELK_ERROR_GENERAL),
        DIAG(ZELK_ERROR_TYPEID_NOT_SUPPORTED),
        DIAG(ZELK_ERROR_BUSY),
        DIAG(ZELK_ERROR_PRECONDITION_NOT_MET),
        DIAG(ZELK_ERROR_NVM_WRITE_FAILED),
        DIAG(ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED),
        DIAG(ZELK_ERROR_DLC_INVALID_MAC),
        DIAG(ZELK_ERROR_DLC_MALFORMATTED),
        DIAG(ZELK_ERROR_DLC_DEPRECATED),
        DIAG(ZELK_ERROR_DLC_VERIFICATION_MISMATCH),
        DIAG(ZELK_ERROR_DLC_UNSUPPORTED_VERSION),
        DIAG(ZELK_ERROR_DLC_KEYGENUS_NOT_DERIVABLE),
        DIAG(ZELK_ERROR_DLC_MISSING_KEY),
        DIAG(ZELK_ERROR_CONFIG_NVM_RAM_BUFFER_SIZE_TOO_SMALL),
        DIAG(ZELK_ERROR_CONFIG_MAX_DLC_LENGTH_TOO_SMALL),
        DIAG(ZELK_ERROR_CONFIG_TYPEID_NOT_CONFIGURED),
        DIAG(ZELK_ERROR_CRYPTO_E_BUSY),
        DIAG(ZELK_ERROR_CRYPTO_E_QUEUE_FULL),
        DIAG(ZELK_ERROR_CRYPTO_E_KEY_WRITE_FAIL),
        DIAG(ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH),
    };
#undef DIAG
    return errors;
}

const Errors& TypeIdErrors() {
    using zelk::interfaces::typeidaccess::TypeIdAccessErrc;
#define TYPEID(name) E(#name, TypeIdAccessErrc::name)
    static const Errors errors = {
        TYPEID(ZELK_ERROR_GENERAL),
        TYPEID(ZELK_ERROR_INVALID_TYPEID),
        TYPEID(ZELK_ERROR_TYPEID_NOT_SUPPORTED),
        TYPEID(ZELK_ERROR_CORRUPTED_KEY_DATA),
        TYPEID(ZELK_ERROR_BUSY),
        TYPEID(ZELK_ERROR_UNEXPECTED_GENUS),
        TYPEID(ZELK_ERROR_CRYPTO_E_BUSY),
        TYPEID(ZELK_ERROR_CRYPTO_E_QUEUE_FULL),
    };
#undef TYPEID
    return errors;
}

const Errors& UdsErrors() {
    static const Errors errors = {
        E("UDSServiceFailed", ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed)};
    return errors;
}

const Errors& NoErrors() {
    static const Errors errors = {{"", 0}};
    return errors;
}

/// The errors a fail point may raise; the first is its default. Nothing for unknown names.
const Errors* ErrorsOf(std::string_view name) {
    for (const char* method :
         {"HandleDlc", "GetIdentityHash", "GetPssHash", "GetTrainingCounter", "GetZelkVIN"}) {
        if (name == method) {
            return &DiagErrors();
        }
    }
    if (name == "GetCertificate") {
        return &TypeIdErrors();
    }
    if (name == "HandleMessage") {
        return &UdsErrors();
    }
    if (name == "persist" || name == "stall") {
        return &NoErrors();
    }
    return nullptr;
}

}  // namespace

bool FailPoints::Add(std::string_view definition, std::string& error) {
    std::string_view rest = definition;
    std::optional<std::uint32_t> count = 1;
    const auto colon = rest.rfind(':');
    if (colon != std::string_view::npos) {
        const auto countText = rest.substr(colon + 1);
        if (countText == "*") {
            count.reset();
        } else if (const auto value = sim_common::ParseInteger(countText, 1, 1000000)) {
            count = static_cast<std::uint32_t>(*value);
        } else {
            error = "bad count '" + std::string(countText) + "' in fail point '" +
                    std::string(definition) + "' (a number from 1 or *)";
            return false;
        }
        rest = rest.substr(0, colon);
    }
    const auto equals = rest.find('=');
    const auto name = rest.substr(0, equals);
    const Errors* errors = ErrorsOf(name);
    if (errors == nullptr) {
        error = "unknown fail point '" + std::string(name) +
                "' (HandleDlc, GetIdentityHash, GetPssHash, GetTrainingCounter, GetZelkVIN, "
                "GetCertificate, HandleMessage, persist or stall)";
        return false;
    }
    Point point{std::string(name), {errors->front().first, errors->front().second}, count};
    if (equals != std::string_view::npos) {
        const auto wanted = rest.substr(equals + 1);
        bool found = false;
        for (const auto& [errorName, code] : *errors) {
            if (!wanted.empty() && wanted == errorName) {
                point.hit = {errorName, code};
                found = true;
            }
        }
        if (!found) {
            error = "fail point '" + std::string(name) + "' cannot raise '" + std::string(wanted) +
                    "'" + (errors == &NoErrors() ? " (it takes no error)" : "");
            return false;
        }
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    points_.push_back(std::move(point));
    return true;
}

std::optional<FailPoints::Hit> FailPoints::Take(std::string_view name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = points_.begin(); it != points_.end(); ++it) {
        if (it->name != name) {
            continue;
        }
        Hit hit = it->hit;
        if (it->count && --*it->count == 0) {
            points_.erase(it);
        }
        return hit;
    }
    return std::nullopt;
}

void FailPoints::Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    points_.clear();
}

std::vector<std::string> FailPoints::Pending() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> pending;
    for (const auto& point : points_) {
        pending.push_back(point.name + (point.hit.error.empty() ? "" : "=" + point.hit.error) +
                          ":" + (point.count ? std::to_string(*point.count) : "*"));
    }
    return pending;
}

}  // namespace vehicle_sim
