#include "test_support/child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kelvane::testing {
namespace {

int DecodeStatus(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

}  // namespace

ChildProcess::ChildProcess(Options options) {
    if (options.argv.empty()) {
        throw std::invalid_argument("ChildProcess: no program given");
    }
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const auto equals = text.find('=');
        if (equals != std::string::npos) {
            environment[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : options.environment) {
        environment[name] = value;
    }
    std::vector<std::string> envStrings;
    for (const auto& [name, value] : environment) {
        envStrings.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : envStrings) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<char*> argv;
    for (auto& arg : options.argv) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("ChildProcess: fork failed");
    }
    if (pid_ == 0) {
        if (!options.outputFile.empty()) {
            const int fd = ::open(options.outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) {
                ::dup2(fd, STDOUT_FILENO);
                ::dup2(fd, STDERR_FILENO);
                ::close(fd);
            }
        }
        ::setpgid(0, 0);
        ::execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !exitStatus_) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
}

bool ChildProcess::Running() {
    if (exitStatus_) {
        return false;
    }
    int status = 0;
    const pid_t result = ::waitpid(pid_, &status, WNOHANG);
    if (result == pid_) {
        exitStatus_ = DecodeStatus(status);
        return false;
    }
    return true;
}

void ChildProcess::Signal(int signal) const {
    if (pid_ > 0 && !exitStatus_) {
        ::kill(pid_, signal);
    }
}

std::optional<int> ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
    WaitUntil([this] { return !Running(); }, timeout, std::chrono::milliseconds(5));
    return exitStatus_;
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
    Signal(SIGTERM);
    if (auto status = WaitForExit(grace)) {
        return *status;
    }
    Signal(SIGKILL);
    return WaitForExit(std::chrono::milliseconds(5000)).value_or(-1);
}

std::string FindProgram(const std::string& name) {
    const char* buildDir = std::getenv("KELVANE_BUILD_DIR");
    if (buildDir == nullptr) {
        buildDir = KELVANE_BUILD_DIR;
    }
    {
        for (const char* sub : {"/app/", "/sim/backend/", "/sim/vehicle/", "/"}) {
            const std::string candidate = std::string(buildDir) + sub + name;
            if (::access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
        }
    }
    return name;
}

}  // namespace kelvane::testing
