#include "test_support/child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

extern char** environ;

namespace kelvane::testing {
namespace {

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (auto& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ChildProcess::ChildProcess(Options options) {
    // Prepared before fork: the child of a threaded process may only exec.
    std::vector<std::string> envStrings;
    for (const auto& [name, value] : options.environment) {
        envStrings.push_back(name + "=" + value);
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (options.environment.count(text.substr(0, text.find('='))) == 0) {
            envStrings.push_back(text);
        }
    }
    const auto envp = Pointers(envStrings);
    const auto argv = Pointers(options.argv);
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("ChildProcess: fork failed");
    }
    if (pid_ == 0) {
        const int fd = options.outputFile.empty()
                           ? -1
                           : ::open(options.outputFile.c_str(),
                                    O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
        }
        ::setpgid(0, 0);
        ::execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !exitStatus_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void ChildProcess::Signal(int signal) const {
    if (pid_ > 0 && !exitStatus_) {
        ::kill(pid_, signal);
    }
}

std::optional<int> ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
    WaitUntil(
        [this] {
            int status = 0;
            if (!exitStatus_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
                exitStatus_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            }
            return exitStatus_.has_value();
        },
        timeout, std::chrono::milliseconds(5));
    return exitStatus_;
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
    Signal(SIGTERM);
    if (!WaitForExit(grace)) {
        Signal(SIGKILL);
    }
    return WaitForExit(std::chrono::milliseconds(5000)).value_or(-1);
}

std::string FindProgram(const std::string& name) {
    const char* buildDir = std::getenv("KELVANE_BUILD_DIR");
    for (const char* sub : {"/app/", "/sim/backend/", "/sim/vehicle/", "/"}) {
        const std::string candidate =
            std::string(buildDir ? buildDir : KELVANE_BUILD_DIR) + sub + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return name;
}

}  // namespace kelvane::testing
