#include "test_support/temporary_directory.hpp"

#include <fcntl.h>
#include <unistd.h>

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
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);  // sets a new mode
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (fd < 0 || ::close(fd) != 0 || !(file << content) || !file.flush()) {
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
