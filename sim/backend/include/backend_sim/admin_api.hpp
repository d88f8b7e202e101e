#ifndef BACKEND_SIM_ADMIN_API_HPP
#define BACKEND_SIM_ADMIN_API_HPP

#include <functional>
#include <string>

#include "backend_sim/event_log.hpp"
#include "backend_sim/fault_plan.hpp"
#include "backend_sim/http_message.hpp"

namespace backend_sim {

/// The simulator's own control endpoints under /admin/ (no token: the
/// simulator listens on loopback only):
///
///     POST   /admin/fault    body: one EXCHANGE=KIND[:ARG][:COUNT] per line -> 204
///     GET    /admin/faults   the faults still waiting, one per line      -> 200
///     DELETE /admin/faults   drops them all                              -> 204
///     POST   /admin/push     body: the message ("" = the default one)    -> 204, 502
///     GET    /admin/status   {"events":N,"connections":N,"faults":[...]} -> 200
class AdminApi {
public:
    static constexpr const char* kPrefix = "/admin/";
    static constexpr const char* kDefaultPushMessage = R"({"request":"zelkDlcUpdate"})";

    /// Publishes a push message; false with a reason.
    using Publisher = std::function<bool(const std::string& payload, std::string& error)>;

    AdminApi(FaultPlan& faults, const EventLog& events, Publisher publisher);

    static bool Handles(const std::string& path);
    HttpResponse Handle(const HttpRequest& request);

private:
    HttpResponse AddFaults(const std::string& body);

    FaultPlan& faults_;
    const EventLog& events_;
    Publisher publisher_;
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_ADMIN_API_HPP
