// Logs through the configured sinks, then exits: log_program APP_ID LEVEL:TEXT...
//
// With "--linger" first it stays until a signal ends it, as the long-lived
// client does, so that a sink's delivery does not hang on its exit flush.
//
// With "--journal FILE" first it also stands in for journald. Run it in a mount
// namespace of its own with an empty /run: it binds the journal's socket, logs
// with KELVANE_LOG=journal and writes every entry it received to FILE, one
// field a line, an empty line after each entry.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "csc_logging/csc_logging.hpp"

namespace {

int BindJournalSocket() {
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/systemd/journal/socket");
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 2;
    int journal = -1;
    std::string journalFile;
    const bool linger = argc > 1 && std::string(argv[1]) == "--linger";
    if (linger) {
        ++argv;
        --argc;
    }
    if (argc > 3 && std::string(argv[1]) == "--journal") {
        journalFile = argv[2];
        journal = BindJournalSocket();
        if (journal < 0) {
            return 3;
        }
        ::setenv("KELVANE_LOG", "journal", 1);
        first = 4;
    }
    if (argc < first) {
        return 2;
    }
    csc_logging::CSCLogging::InitLogging(argv[first - 1], "kelvane logging test");
    for (int i = first; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto colon = argument.find(':');
        const auto level = csc_logging::ParseLogLevel(argument.substr(0, colon));
        if (colon == std::string::npos || !level) {
            return 2;
        }
        csc_logging::CSCLogging::Log(*level, argument.substr(colon + 1));
    }
    if (journal >= 0) {
        std::ofstream out(journalFile);
        char entry[65536];
        for (ssize_t size; (size = ::recv(journal, entry, sizeof(entry), 0)) > 0;) {
            out << std::string(entry, static_cast<std::size_t>(size)) << '\n';
        }
    }
    while (linger) {
        ::pause();
    }
    return 0;
}
