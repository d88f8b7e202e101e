#ifndef VI_CONNECTOR_SECRET_FILE_HPP
#define VI_CONNECTOR_SECRET_FILE_HPP

#include <cstddef>
#include <optional>
#include <string>

namespace vi_connector {

/// Reads a file that holds a secret (token, private key): no symbolic link,
/// a regular file, at most `maxBytes`. Warns when group or others may read it.
/// Nothing and a one-line reason in `error` on failure.
std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_SECRET_FILE_HPP
