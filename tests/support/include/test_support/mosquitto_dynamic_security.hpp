#ifndef TEST_SUPPORT_MOSQUITTO_DYNAMIC_SECURITY_HPP
#define TEST_SUPPORT_MOSQUITTO_DYNAMIC_SECURITY_HPP

#include <string>

#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// Broker configuration text for MosquittoBroker's `extraConfig` that makes
/// the broker refuse (SUBACK 0x80 and up) every subscription matching
/// `deniedPattern` and allow everything else, through the dynamic-security
/// plugin. A plain acl_file cannot do this: it filters delivery only.
/// The plugin's file goes into `directory`, which must outlive the broker.
/// Throws std::runtime_error when the plugin is not installed.
std::string DenySubscriptionsConfig(const TemporaryDirectory& directory,
                                    const std::string& deniedPattern);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_MOSQUITTO_DYNAMIC_SECURITY_HPP
