#ifndef TESTS_FUZZ_FUZZ_CHECK_HPP
#define TESTS_FUZZ_FUZZ_CHECK_HPP

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// A property of the code under test that an input broke: names it and
/// aborts, so that libFuzzer keeps the input as a crash artifact.
[[noreturn]] inline void Fail(const char* property) {
    std::fprintf(stderr, "Property violated: %s\n", property);
    std::abort();
}

inline void Require(bool holds, const char* property) {
    if (!holds) {
        Fail(property);
    }
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_FUZZ_CHECK_HPP
