#ifndef APP_UPDATE_STATE_HPP
#define APP_UPDATE_STATE_HPP

#include <cstdint>

namespace kelvane_client {

/// Where the client stands with a DLC update.
enum class UpdateState : std::uint8_t {
    kIdle = 0,
    kPending = 1,  // triggered, waits for a good connection
    kStarted = 2,  // a challenge was received
};

}  // namespace kelvane_client

#endif  // APP_UPDATE_STATE_HPP
