#ifndef SIM_COMMON_SIM_DEFAULTS_HPP
#define SIM_COMMON_SIM_DEFAULTS_HPP

namespace sim_common {

/// Shared secret both simulators derive vehicle keys from when none is given.
/// Fine for a demo on one machine; anything shared with others should pass
/// its own with --secret.
constexpr const char* kDefaultSecret = "kelvane-demo-secret";
constexpr const char* kDefaultVin = "WKV0SIM0000000001";
constexpr const char* kDefaultToken = "kelvane-demo-token";

/// The topic the backend pushes update requests on.
constexpr const char* kInitiationTopic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";

/// Exit codes of both simulators.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

}  // namespace sim_common

#endif  // SIM_COMMON_SIM_DEFAULTS_HPP
