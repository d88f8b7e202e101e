#include "test_support/temporary_directory.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kelvane::testing {

TemporaryDirectory::TemporaryDirectory() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kelvane-test-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) {
        throw std::runtime_error("TemporaryDirectory: mkdtemp failed for " + path_);
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::Write(const std::string& name, const std::string& content) const {
    const std::string path = File(name);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::size_t written = 0;
    while (fd >= 0 && written < content.size()) {
        const ssize_t count = ::write(fd, content.data() + written, content.size() - written);
        if (count < 0 && errno != EINTR) {
            break;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    if (fd < 0 || ::close(fd) != 0 || written != content.size()) {
        throw std::runtime_error("TemporaryDirectory: cannot write " + path);
    }
    return path;
}

std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace kelvane::testing
