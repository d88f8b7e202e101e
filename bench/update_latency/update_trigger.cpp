// Triggers the client's updates for run.sh and waits for their end, so that
// nothing else (no process start, no polling shell) runs on the machine while
// an update is timed: the MQTT session and the program are up before the
// trigger, and the wait for the client's log line sleeps on inotify.
//
//   bench_update_trigger MQTT_PORT VEHICLE_STATE_DIR CLIENT_LOG
//
// Commands on standard input, one answer line each:
//   push [N]       publishes the push message (QoS 1) from the open session;
//                  answers the wall-clock time just before the publish
//                  (epoch ms, three decimals) once the broker took it and,
//                  with N, once the client's log holds N feedback lines
//   clamp on|off [N]  switches Clamp 15 through the vehicle simulator's
//                  control socket; "ok", with N once N feedback lines are there
// Failures answer "error REASON".
#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include "log_watch.hpp"
#include "vehicle_sim/control_client.hpp"
#include "vehicle_sim/vehicle_runtime.hpp"

namespace {

constexpr const char* kTopic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";
constexpr const char* kPushMessage = "{\"request\":\"zelkDlcUpdate\"}";
constexpr const char* kFeedbackLine = "Status feedback sent successfully";
constexpr auto kTimeout = std::chrono::seconds(30);

struct Session {
    std::mutex mutex;
    std::condition_variable changed;
    int connack = -1;
    int acknowledgedMid = -1;
};

void OnConnect(mosquitto*, void* user, int rc) {
    auto* session = static_cast<Session*>(user);
    const std::lock_guard<std::mutex> lock(session->mutex);
    session->connack = rc;
    session->changed.notify_all();
}

void OnPublish(mosquitto*, void* user, int mid) {
    auto* session = static_cast<Session*>(user);
    const std::lock_guard<std::mutex> lock(session->mutex);
    session->acknowledgedMid = mid;
    session->changed.notify_all();
}

double EpochMilliseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) /
           1000.0;
}

class Trigger {
public:
    Trigger(int mqttPort, std::string vehicleState, const std::string& clientLog)
        : controlSocket_(std::move(vehicleState) + "/" + vehicle_sim::VehicleRuntime::kSocketName)
        , log_(clientLog, kFeedbackLine) {
        mosquitto_lib_init();
        client_ = mosquitto_new(nullptr, true, &session_);
        if (client_ == nullptr) {
            throw std::runtime_error("cannot create an MQTT client");
        }
        mosquitto_connect_callback_set(client_, OnConnect);
        mosquitto_publish_callback_set(client_, OnPublish);
        int rc = mosquitto_connect(client_, "127.0.0.1", mqttPort, 60);
        if (rc == MOSQ_ERR_SUCCESS) {
            rc = mosquitto_loop_start(client_);
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            throw std::runtime_error("cannot connect to 127.0.0.1:" + std::to_string(mqttPort) +
                                     ": " + mosquitto_strerror(rc));
        }
        std::unique_lock<std::mutex> lock(session_.mutex);
        if (!session_.changed.wait_for(lock, kTimeout, [&] { return session_.connack >= 0; }) ||
            session_.connack != 0) {
            throw std::runtime_error("the broker did not accept the session");
        }
    }

    ~Trigger() {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
        mosquitto_lib_cleanup();
    }
    Trigger(const Trigger&) = delete;
    Trigger& operator=(const Trigger&) = delete;

    std::string Command(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "push") {
            long lines = 0;
            words >> lines;
            return Push(lines);
        }
        if (verb == "clamp") {
            std::string state;
            long lines = 0;
            words >> state >> lines;
            return Clamp(state, lines);
        }
        return "error unknown command '" + line + "'";
    }

private:
    std::string Push(long lines) {
        const double stamp = EpochMilliseconds();
        int mid = 0;
        const int rc =
            mosquitto_publish(client_, &mid, kTopic, static_cast<int>(std::strlen(kPushMessage)),
                              kPushMessage, 1, false);
        if (rc != MOSQ_ERR_SUCCESS) {
            return std::string("error publish: ") + mosquitto_strerror(rc);
        }
        {
            std::unique_lock<std::mutex> lock(session_.mutex);
            if (!session_.changed.wait_for(lock, kTimeout,
                                           [&] { return session_.acknowledgedMid == mid; })) {
                return "error no PUBACK";
            }
        }
        if (lines > 0 && !log_.WaitFor(lines, kTimeout)) {
            return "error the client's log has fewer than " + std::to_string(lines) +
                   " feedback lines";
        }
        std::ostringstream answer;
        answer << std::fixed << std::setprecision(3) << stamp;
        return answer.str();
    }

    std::string Clamp(const std::string& state, long lines) {
        if (state != "on" && state != "off") {
            return "error clamp takes on or off";
        }
        std::string reply;
        if (vehicle_sim::ControlClient::Send(controlSocket_, "clamp " + state, reply) !=
                vehicle_sim::ControlClient::Result::kAnswered ||
            reply.compare(0, 2, "ok") != 0) {
            return "error vehicle simulator: " + reply;
        }
        if (lines > 0 && !log_.WaitFor(lines, kTimeout)) {
            return "error the client's log has fewer than " + std::to_string(lines) +
                   " feedback lines";
        }
        return "ok";
    }

    std::string controlSocket_;
    kelvane::bench::LogWatch log_;
    Session session_;
    mosquitto* client_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr,
                     "usage: %s MQTT_PORT VEHICLE_STATE_DIR CLIENT_LOG  (commands on stdin)\n",
                     argv[0]);
        return 2;
    }
    try {
        Trigger trigger(std::atoi(argv[1]), argv[2], argv[3]);
        std::cout << "connected" << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
            std::cout << trigger.Command(line) << std::endl;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
    return 0;
}
