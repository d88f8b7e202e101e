#include "test_support/mosquitto_broker.hpp"

#include <stdexcept>

#include "test_support/loopback.hpp"

namespace kelvane::testing {

MosquittoBroker::MosquittoBroker(std::string extraConfig) : port_(FreeTcpPort()) {
    configPath_ = directory_.Write("mosquitto.conf", "listener " + std::to_string(port_) +
                                                         " 127.0.0.1\n"
                                                         "allow_anonymous true\n"
                                                         "persistence false\n" +
                                                         extraConfig + "\n");
    Start();
}

MosquittoBroker::~MosquittoBroker() {
    Stop();
}

void MosquittoBroker::Start() {
    if (process_) {
        return;
    }
    process_ = std::make_unique<ChildProcess>(ChildProcess::Options{
        {"mosquitto", "-c", configPath_}, {}, directory_.File("mosquitto.log")});
    if (!WaitUntil([this] { return AcceptsConnections(port_); }, std::chrono::seconds(10))) {
        throw std::runtime_error("MosquittoBroker: no broker on port " + std::to_string(port_) +
                                 ": " + Log());
    }
}

void MosquittoBroker::Stop() {
    if (process_) {
        process_->Stop();
        process_.reset();
    }
}

void MosquittoBroker::Restart() {
    Stop();
    Start();
}

std::string MosquittoBroker::Log() const {
    return ReadFile(directory_.File("mosquitto.log"));
}

}  // namespace kelvane::testing
