#ifndef SIM_COMMON_JSON_HPP
#define SIM_COMMON_JSON_HPP

#include <nlohmann/json.hpp>
#include <string>

namespace sim_common {

/// Keys stay in the order they were set: event logs and status output read top-down.
using Json = nlohmann::ordered_json;

/// One line of JSON. Bytes a peer sent that are not UTF-8 become U+FFFD
/// instead of an exception, and everything else stays ASCII.
inline std::string JsonText(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace sim_common

#endif  // SIM_COMMON_JSON_HPP
