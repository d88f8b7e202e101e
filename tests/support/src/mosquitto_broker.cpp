#include "test_support/mosquitto_broker.hpp"

#include <stdexcept>

#include "test_support/loopback.hpp"

namespace kelvane::testing {

MosquittoBroker::MosquittoBroker(std::string extraConfig) : port_(FreeTcpPort()) {
    directory_.Write("mosquitto.conf", "listener " + std::to_string(port_) +
                                           " 127.0.0.1\nallow_anonymous true\n"
                                           "persistence false\n" +
                                           extraConfig + "\n");
    Start();
}

void MosquittoBroker::Start() {
    const std::string log = directory_.File("mosquitto.log");
    process_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{"mosquitto", "-c", directory_.File("mosquitto.conf")}, {}, log});
    if (!WaitUntil([this] { return AcceptsConnections(port_); }, std::chrono::seconds(10))) {
        throw std::runtime_error("MosquittoBroker: no broker on port " + std::to_string(port_) +
                                 ": " + ReadFile(log));
    }
}

}  // namespace kelvane::testing
