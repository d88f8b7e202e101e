#include "loopback_host.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>

namespace vi_connector {

bool IsLoopbackHost(const std::string& host) {
    std::string name = host;
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    }
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (name == "localhost" || name == "localhost.") {
        return true;
    }
    in_addr v4{};
    if (::inet_pton(AF_INET, name.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    if (::inet_pton(AF_INET6, name.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6) != 0;
    }
    return false;
}

std::string HostOfUrl(const std::string& url) {
    const auto separator = url.find("://");
    if (separator == std::string::npos) {
        return {};
    }
    const auto start = separator + 3;
    if (start < url.size() && url[start] == '[') {
        const auto closing = url.find(']', start);
        return closing == std::string::npos ? std::string()
                                            : url.substr(start + 1, closing - start - 1);
    }
    const auto end = url.find_first_of(":/?#", start);
    return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::string SchemeOfUrl(const std::string& url) {
    const auto separator = url.find("://");
    if (separator == std::string::npos) {
        return {};
    }
    std::string scheme = url.substr(0, separator);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return scheme;
}

}  // namespace vi_connector
