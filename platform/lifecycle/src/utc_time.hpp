#ifndef LIFECYCLE_UTC_TIME_HPP
#define LIFECYCLE_UTC_TIME_HPP

#include <chrono>
#include <ctime>
#include <string>

namespace ara::exec {

/// "2026-11-24 14:21:48 UTC": how the status line and the clock warning give a time.
inline std::string UtcTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc));
}

}  // namespace ara::exec

#endif  // LIFECYCLE_UTC_TIME_HPP
