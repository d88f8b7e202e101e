#ifndef TEST_SUPPORT_CHILD_PROCESS_HPP
#define TEST_SUPPORT_CHILD_PROCESS_HPP

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::testing {

/// A program a test starts and is sure to stop: the destructor kills it
/// (SIGKILL) and reaps it if it is still running.
class ChildProcess {
public:
    struct Options {
        std::vector<std::string> argv;
        /// Added to (or replacing in) the test's own environment.
        std::map<std::string, std::string> environment;
        /// stdout and stderr go here (appended); empty: inherited.
        std::string outputFile;
    };

    explicit ChildProcess(Options options);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }
    void Signal(int signal) const;
    /// The exit status (128 + signal number when killed), or nothing on time-out.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);
    /// SIGTERM, then SIGKILL if it has not exited within `grace`.
    int Stop(std::chrono::milliseconds grace = std::chrono::milliseconds(5000));

private:
    pid_t pid_ = -1;
    std::optional<int> exitStatus_;
};

/// Waits until `condition` holds, checking every `interval`; false on time-out.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
    for (const auto deadline = std::chrono::steady_clock::now() + timeout; !condition();
         std::this_thread::sleep_for(interval)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

/// A built program in the build tree (KELVANE_BUILD_DIR overrides where), else left to PATH.
std::string FindProgram(const std::string& name);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_CHILD_PROCESS_HPP
