// log_program [--linger] [--journal FILE] APP_ID LEVEL:TEXT...: logs through the sinks.
// --linger stays, as the client does, so that no delivery hangs on an exit flush.
// --journal, in a mount namespace with an empty /run, stands in for journald too: FILE
// receives each entry, a field a line, an empty line after each.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "csc_logging/csc_logging.hpp"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    const bool linger = !args.empty() && args[0] == "--linger";
    args.erase(args.begin(), args.begin() + (linger ? 1 : 0));
    int journal = -1;
    std::string journalFile;
    if (args.size() > 2 && args[0] == "--journal") {
        journalFile = args[1];
        ::mkdir("/run/systemd", 0755);
        ::mkdir("/run/systemd/journal", 0755);
        sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        journal = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (::bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            return 3;
        }
        ::setenv("KELVANE_LOG", "journal", 1);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) {
        return 2;
    }
    csc_logging::CSCLogging::InitLogging(args[0], "kelvane logging test");
    for (std::size_t i = 1; i < args.size(); ++i) {
        const auto colon = args[i].find(':');
        const auto level = csc_logging::ParseLogLevel(args[i].substr(0, colon));
        if (colon == std::string::npos || !level) {
            return 2;
        }
        csc_logging::CSCLogging::Log(*level, args[i].substr(colon + 1));
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
