#ifndef BACKEND_SIM_HTTP_MESSAGE_HPP
#define BACKEND_SIM_HTTP_MESSAGE_HPP

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace backend_sim {

/// A received request as the simulator's logic sees it, free of the HTTP
/// library: header names in lower case.
struct HttpRequest {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;
    std::string body;

    /// The header's value, or "" when absent.
    std::string Header(const std::string& lowerCaseName) const {
        const auto it = headers.find(lowerCaseName);
        return it == headers.end() ? std::string() : it->second;
    }
    bool HasHeader(const std::string& lowerCaseName) const {
        return headers.count(lowerCaseName) != 0;
    }
    /// The target without its query.
    std::string Path() const { return target.substr(0, target.find('?')); }
};

/// An answer to send; Content-Length and Connection are added when it is written.
struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    static HttpResponse Text(int status, const std::string& text) {
        HttpResponse response;
        response.status = status;
        response.headers.emplace_back("Content-Type", "text/plain");
        response.body = text + "\n";
        return response;
    }
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_HTTP_MESSAGE_HPP
