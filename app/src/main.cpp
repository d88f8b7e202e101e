#include <exception>
#include <optional>

#include "app/kelvane_client.hpp"
#include "csc_logging/csc_logging.hpp"

int main() {
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
