#ifndef TEST_SUPPORT_SCOPED_ENVIRONMENT_HPP
#define TEST_SUPPORT_SCOPED_ENVIRONMENT_HPP

#include <stdlib.h>

#include <optional>
#include <string>
#include <utility>

namespace kelvane::testing {

/// Sets (given no value: unsets) an environment variable until destruction, also when the test
/// fails half-way. Change the environment only while no other thread of the test reads it.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::optional<std::string>& value)
        : name_(std::move(name)) {
        if (const char* previous = ::getenv(name_.c_str())) {
            previous_ = previous;
        }
        Apply(value);
    }
    ~ScopedEnvironment() { Apply(previous_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    void Apply(const std::optional<std::string>& value) const {
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_SCOPED_ENVIRONMENT_HPP
