#ifndef TEST_SUPPORT_TEMPORARY_DIRECTORY_HPP
#define TEST_SUPPORT_TEMPORARY_DIRECTORY_HPP

#include <string>

namespace kelvane::testing {

/// A fresh directory under $TMPDIR (or /tmp), removed with its content on destruction.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    /// A new file is private (0600), as secrets are; an existing one keeps its mode.
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::string path_;
};

/// The whole content of a file, or an empty string when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_TEMPORARY_DIRECTORY_HPP
