#ifndef BACKEND_REQUEST_PARAMS_HPP
#define BACKEND_REQUEST_PARAMS_HPP

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane_client {

/// The ECU identity parameters of one backend request, as collected for one
/// update; encoded into the download and feedback messages.
struct RequestParams {
    /// The backend's challenge, 32 hexadecimal characters.
    std::string tesmoChallenge;
    std::string diagnosticID;
    std::string partNumber;
    std::string tesmoIdString;
    std::vector<std::uint8_t> zelkVin;
    std::uint16_t trainingCounter = 0;
    std::vector<std::uint8_t> pssHash;
    /// Computed over the 16 challenge bytes.
    std::vector<std::uint8_t> identityHash;
};

}  // namespace kelvane_client

#endif  // BACKEND_REQUEST_PARAMS_HPP
