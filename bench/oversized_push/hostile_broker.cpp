// An MQTT 5 broker that ignores the Maximum Packet Size its client announced:
// after every SUBACK it sends one message of the given size (QoS 1) and an
// ordinary push behind it. Serves until SIGTERM.
//
//   bench_hostile_broker --port-file FILE --payload-bytes N [--cert PEM --key PEM]
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "test_support/scripted_mqtt_broker.hpp"

namespace {

constexpr const char* kTopic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";

}  // namespace

int main(int argc, char** argv) {
    std::string portFile;
    std::size_t payloadBytes = 0;
    kelvane::testing::ScriptedMqttBroker::Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--port-file") {
            portFile = value;
        } else if (name == "--payload-bytes") {
            payloadBytes = std::strtoull(value.c_str(), nullptr, 10);
        } else if (name == "--cert") {
            options.certFile = value;
        } else if (name == "--key") {
            options.keyFile = value;
        } else {
            std::fprintf(stderr, "bench_hostile_broker: unknown option %s\n", name.c_str());
            return 2;
        }
    }
    if (portFile.empty() || payloadBytes == 0) {
        std::fprintf(stderr,
                     "usage: bench_hostile_broker --port-file FILE --payload-bytes N "
                     "[--cert PEM --key PEM]\n");
        return 2;
    }
    using Broker = kelvane::testing::ScriptedMqttBroker;
    options.afterSuback = Broker::Publish(kTopic, std::string(payloadBytes, 'x'), 1, 7, true) +
                          Broker::Publish(kTopic, "push", 1, 8, true);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    Broker broker(options);
    std::ofstream(portFile) << broker.Port() << "\n";
    int signal = 0;
    sigwait(&stop, &signal);
    // At once, even in the middle of sending the large message.
    std::_Exit(0);
}
