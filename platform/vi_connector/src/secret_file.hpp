#ifndef VI_CONNECTOR_SECRET_FILE_HPP
#define VI_CONNECTOR_SECRET_FILE_HPP

#include <cstddef>
#include <optional>
#include <string>

namespace vi_connector {

/// Reads a secret (token, private key) of at most maxBytes from a file that
/// keeps it secret: a regular file, not a symbolic link, owned by root or this
/// process's user, writable by no one else and readable by no other user
/// (group read is fine: a root:kelvane 0640 file). `error` names the file and
/// the rule broken, never the content.
std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error);

/// The same rule for a secret file another library opens by path itself.
bool CheckSecretFile(const std::string& path, std::string& error);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_SECRET_FILE_HPP
