#ifndef VI_CONNECTOR_SECRET_FILE_HPP
#define VI_CONNECTOR_SECRET_FILE_HPP

#include <cstddef>
#include <optional>
#include <string>

namespace vi_connector {

/// Reads a secret (token, private key) of at most maxBytes: O_NOFOLLOW, regular file
/// only; warns (naming the file, never the content) when group or others can read it.
std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_SECRET_FILE_HPP
