#ifndef TEST_SUPPORT_MOSQUITTO_BROKER_HPP
#define TEST_SUPPORT_MOSQUITTO_BROKER_HPP

#include <cstdint>
#include <memory>
#include <string>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// A mosquitto broker of the test's own on 127.0.0.1 and a free port.
/// `extraConfig` is appended to its configuration (for example a
/// dynamic-security plugin that refuses a topic).
class MosquittoBroker {
public:
    explicit MosquittoBroker(std::string extraConfig = "");
    ~MosquittoBroker();

    std::uint16_t Port() const { return port_; }
    const TemporaryDirectory& Directory() const { return directory_; }

    void Start();
    void Stop();
    /// Stops and starts again on the same port.
    void Restart();
    std::string Log() const;

private:
    TemporaryDirectory directory_;
    std::uint16_t port_;
    std::string configPath_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_MOSQUITTO_BROKER_HPP
