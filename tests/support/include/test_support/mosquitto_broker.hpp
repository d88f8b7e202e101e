#ifndef TEST_SUPPORT_MOSQUITTO_BROKER_HPP
#define TEST_SUPPORT_MOSQUITTO_BROKER_HPP

#include <cstdint>
#include <memory>
#include <string>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// A mosquitto broker of the test's own on 127.0.0.1 and a free port; `extraConfig`
/// is appended to its configuration. Start() after Stop() uses the same port.
class MosquittoBroker {
public:
    explicit MosquittoBroker(std::string extraConfig = "");

    std::uint16_t Port() const { return port_; }

    void Start();
    void Stop() { process_.reset(); }

private:
    TemporaryDirectory directory_;
    std::uint16_t port_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_MOSQUITTO_BROKER_HPP
