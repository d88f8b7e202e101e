#include "test_support/mosquitto_dynamic_security.hpp"

#include <glob.h>
#include <sys/stat.h>

#include <stdexcept>

namespace kelvane::testing {

std::string DenySubscriptionsConfig(const TemporaryDirectory& directory,
                                    const std::string& deniedPattern) {
    glob_t found{};
    const bool installed =
        ::glob("/usr/{lib,lib/*-linux-gnu,local/lib}/mosquitto_dynamic_security.so", GLOB_BRACE,
               nullptr, &found) == 0;
    const std::string plugin = installed ? found.gl_pathv[0] : "";
    ::globfree(&found);
    if (!installed) {
        throw std::runtime_error(
            "mosquitto_dynamic_security.so not found (Debian package mosquitto)");
    }
    const std::string file = directory.Write(
        "dynamic-security.json",
        R"({"defaultACLAccess": {"publishClientSend": true, "publishClientReceive": true,
  "subscribe": true, "unsubscribe": true},
 "clients": [],
 "groups": [{"groupname": "anonymous", "roles": [{"rolename": "deny"}], "clients": []}],
 "roles": [{"rolename": "deny", "acls": [{"acltype": "subscribePattern", "topic": ")" +
            deniedPattern + R"(", "priority": 0, "allow": false}]}],
 "anonymousGroup": "anonymous"}
)");
    // A broker started as root reads the file after dropping to user mosquitto.
    ::chmod(directory.Path().c_str(), 0755);
    ::chmod(file.c_str(), 0644);
    return "plugin " + plugin + "\nplugin_opt_config_file " + file + "\n";
}

}  // namespace kelvane::testing
