#include "backend_sim/admin_api.hpp"

#include <sstream>
#include <vector>

#include "csc_logging/csc_logging.hpp"
#include "sim_common/json.hpp"

namespace backend_sim {
namespace {

std::string Trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        return "";
    }
    const auto end = text.find_last_not_of(" \t\r\n");
    return text.substr(begin, end - begin + 1);
}

HttpResponse NoContent() {
    HttpResponse response;
    response.status = 204;
    return response;
}

HttpResponse MethodNotAllowed(const char* allowed) {
    auto response = HttpResponse::Text(405, std::string("use ") + allowed);
    response.headers.emplace_back("Allow", allowed);
    return response;
}

}  // namespace

AdminApi::AdminApi(FaultPlan& faults, const EventLog& events, Publisher publisher)
    : faults_(faults), events_(events), publisher_(std::move(publisher)) {}

bool AdminApi::Handles(const std::string& path) {
    return path.compare(0, 7, kPrefix) == 0;
}

HttpResponse AdminApi::Handle(const HttpRequest& request) {
    const std::string path = request.Path();
    if (path == "/admin/fault") {
        return request.method == "POST" ? AddFaults(request.body) : MethodNotAllowed("POST");
    }
    if (path == "/admin/faults") {
        if (request.method == "DELETE") {
            faults_.Clear();
            csc_logging::CSCLogging::Info("Admin: all faults cleared");
            return NoContent();
        }
        if (request.method != "GET") {
            return MethodNotAllowed("GET, DELETE");
        }
        std::string text;
        for (const auto& pending : faults_.Pending()) {
            text += pending + "\n";
        }
        HttpResponse response;
        response.headers.emplace_back("Content-Type", "text/plain");
        response.body = text;
        return response;
    }
    if (path == "/admin/push") {
        if (request.method != "POST") {
            return MethodNotAllowed("POST");
        }
        const std::string payload = request.body.empty() ? kDefaultPushMessage : request.body;
        std::string error;
        if (!publisher_(payload, error)) {
            csc_logging::CSCLogging::Error("Admin: push failed: " + error);
            return HttpResponse::Text(502, error);
        }
        csc_logging::CSCLogging::Info("Admin: push message published");
        return NoContent();
    }
    if (path == "/admin/status") {
        if (request.method != "GET") {
            return MethodNotAllowed("GET");
        }
        HttpResponse response;
        response.headers.emplace_back("Content-Type", "application/json");
        response.body = sim_common::JsonText({{"events", events_.Count()},
                                              {"connections", events_.Connections()},
                                              {"faults", faults_.Pending()}}) +
                        "\n";
        return response;
    }
    return HttpResponse::Text(404, "no admin endpoint " + path);
}

HttpResponse AdminApi::AddFaults(const std::string& body) {
    // All or nothing: a bad line must not leave half of a plan armed.
    std::vector<std::string> definitions;
    std::istringstream lines(body);
    std::string line;
    FaultPlan check;
    while (std::getline(lines, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::string error;
        if (!check.Add(line, error)) {
            return HttpResponse::Text(400, error);
        }
        definitions.push_back(line);
    }
    if (definitions.empty()) {
        return HttpResponse::Text(400, "no fault given (EXCHANGE=KIND[:ARG][:COUNT])");
    }
    for (const auto& definition : definitions) {
        std::string error;
        faults_.Add(definition, error);
        csc_logging::CSCLogging::Info("Admin: fault armed: " + definition);
    }
    return NoContent();
}

}  // namespace backend_sim
