#include <exception>
#include <optional>

#include "app/kelvane_client.hpp"
#include "csc_logging/csc_logging.hpp"
#include "signal_handler/signal_handler.hpp"

int main() {
    // Before any thread starts, so that SIGTERM interrupts none of their calls.
    signal_handler::SignalHandler::BlockInCallingThread();
    csc_logging::CSCLogging::InitLogging("KV", "Kelvane client");

    std::optional<kelvane_client::KelvaneClient> client;
    try {
        client.emplace();
    } catch (const std::exception& e) {
        // Without all collaborators the client cannot work; a non-zero exit
        // lets the service manager restart it.
        csc_logging::CSCLogging::Error(std::string("Kelvane Client cannot start: ") + e.what());
        return 1;
    }
    try {
        client->Init();
        client->Main();
    } catch (...) {
        client.reset();
        throw;
    }
    client.reset();
    return 0;
}
