#include "test_support/mosquitto_dynamic_security.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace kelvane::testing {
namespace {

std::string FindPlugin() {
    for (const char* candidate : {"/usr/lib/x86_64-linux-gnu/mosquitto_dynamic_security.so",
                                  "/usr/lib/aarch64-linux-gnu/mosquitto_dynamic_security.so",
                                  "/usr/lib/mosquitto_dynamic_security.so",
                                  "/usr/local/lib/mosquitto_dynamic_security.so"}) {
        if (::access(candidate, R_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("mosquitto_dynamic_security.so not found (Debian package mosquitto)");
}

}  // namespace

std::string DenySubscriptionsConfig(const TemporaryDirectory& directory,
                                    const std::string& deniedPattern) {
    const std::string plugin = FindPlugin();
    const std::string json =
        "{\"defaultACLAccess\": {\"publishClientSend\": true, \"publishClientReceive\": true,"
        " \"subscribe\": true, \"unsubscribe\": true},\n"
        " \"clients\": [],\n"
        " \"groups\": [{\"groupname\": \"anonymous\", \"roles\": [{\"rolename\": \"deny\"}],"
        " \"clients\": []}],\n"
        " \"roles\": [{\"rolename\": \"deny\", \"acls\": [{\"acltype\": \"subscribePattern\","
        " \"topic\": \"" +
        deniedPattern +
        "\", \"priority\": 0, \"allow\": false}]}],\n"
        " \"anonymousGroup\": \"anonymous\"}\n";
    const std::string file = directory.Write("dynamic-security.json", json);
    // A broker started as root reads the file after dropping to user mosquitto.
    ::chmod(directory.Path().c_str(), 0755);
    ::chmod(file.c_str(), 0644);
    return "plugin " + plugin + "\nplugin_opt_config_file " + file + "\n";
}

}  // namespace kelvane::testing
