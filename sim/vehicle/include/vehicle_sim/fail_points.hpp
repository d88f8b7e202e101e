#ifndef VEHICLE_SIM_FAIL_POINTS_HPP
#define VEHICLE_SIM_FAIL_POINTS_HPP

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vehicle_sim {

/// Named places where the simulator fails on purpose, armed with
/// "NAME[=ERROR][:COUNT]":
///   - a service method (HandleDlc, GetIdentityHash, GetPssHash,
///     GetTrainingCounter, GetZelkVIN, GetCertificate, HandleMessage) raises
///     ERROR, an application error of its interface (default: the general
///     error of the interface);
///   - "persist": the next key-store write fails (HandleDlc then raises
///     ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED and nothing changes);
///   - "stall": the next HandleDlc waits 30 s before it takes the container in,
///     so that a test can kill the simulator in the middle of the call.
/// COUNT is how many calls it hits (default 1) or "*" for every one. Thread-safe.
class FailPoints {
public:
    struct Hit {
        std::string error;
        std::int32_t code = 0;
    };

    /// False with a one-line reason in `error`.
    bool Add(std::string_view definition, std::string& error);
    /// Takes one hit of the first point armed for `name`.
    std::optional<Hit> Take(std::string_view name);
    void Clear();
    /// E.g. "HandleDlc=ZELK_ERROR_BUSY:2".
    std::vector<std::string> Pending() const;

private:
    struct Point {
        std::string name;
        Hit hit;
        std::optional<std::uint32_t> count;
    };

    mutable std::mutex mutex_;
    std::deque<Point> points_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_FAIL_POINTS_HPP
