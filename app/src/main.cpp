#include <sys/prctl.h>
#include <sys/resource.h>

#include <exception>
#include <optional>

#include "app/kelvane_client.hpp"
#include "csc_logging/csc_logging.hpp"
#include "signal_handler/signal_handler.hpp"

int main() {
    // The process holds the backend token and the client key: neither a core
    // file nor another process of the same user (ptrace, /proc/<pid>/mem)
    // may read them. Both calls only fail on arguments other than these, or
    // where a sandbox forbids them; the client then still has its job to do,
    // and logging is not up yet, so their results are not checked.
    prctl(PR_SET_DUMPABLE, 0);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);

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
