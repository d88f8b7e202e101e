// Starts a program with its output in a log file, waits until the log holds
// a line with a text, stops the program with SIGTERM and prints one line:
//
//   START_MS SEEN_MS EXIT_STATUS
//
// START_MS is the wall clock (epoch ms, three decimals) just before the fork,
// SEEN_MS when the line was read; EXIT_STATUS is the program's, 128 + signal
// when a signal ended it, -1 when it had to be killed. Waiting sleeps on
// inotify, so the probe takes no CPU from the program while it starts.
//
//   bench_startup_probe LOG TEXT TIMEOUT_MS PROGRAM [ARGS...]
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <thread>
#include <vector>

#include "log_watch.hpp"

namespace {

double EpochMilliseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) /
           1000.0;
}

/// The exit status after SIGTERM, or -1 when SIGKILL was needed.
int Stop(pid_t child) {
    ::kill(child, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s LOG TEXT TIMEOUT_MS PROGRAM [ARGS...]\n", argv[0]);
        return 2;
    }
    const std::string logPath = argv[1];
    const std::string text = argv[2];
    const auto timeout = std::chrono::milliseconds(std::atol(argv[3]));
    std::vector<char*> program(argv + 4, argv + argc);
    program.push_back(nullptr);

    const int log =
        ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) {
        std::fprintf(stderr, "cannot open %s: %s\n", logPath.c_str(), std::strerror(errno));
        return 1;
    }
    try {
        kelvane::bench::LogWatch watch(logPath, text);
        const double start = EpochMilliseconds();
        const pid_t child = ::fork();
        if (child < 0) {
            std::perror("fork");
            return 1;
        }
        if (child == 0) {
            ::dup2(log, STDOUT_FILENO);
            ::dup2(log, STDERR_FILENO);
            ::execvp(program[0], program.data());
            std::perror(program[0]);
            ::_exit(127);
        }
        ::close(log);
        const bool seen = watch.WaitFor(1, timeout);
        const double seenAt = EpochMilliseconds();
        const int status = Stop(child);
        if (!seen) {
            std::fprintf(stderr, "no line with '%s' in %s within %ld ms\n", text.c_str(),
                         logPath.c_str(), static_cast<long>(timeout.count()));
            return 1;
        }
        std::cout << std::fixed << std::setprecision(3) << start << " " << seenAt << " " << status
                  << std::endl;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
