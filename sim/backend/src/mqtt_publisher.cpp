#include "backend_sim/mqtt_publisher.hpp"

#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"

namespace backend_sim {
namespace {

struct Progress {
    bool connected = false;
    int connackCode = -1;
    int publishedMid = -1;
    bool disconnected = false;
};

void OnConnect(mosquitto*, void* user, int rc) {
    auto* progress = static_cast<Progress*>(user);
    progress->connackCode = rc;
    progress->connected = rc == 0;
}

void OnPublish(mosquitto*, void* user, int mid) {
    static_cast<Progress*>(user)->publishedMid = mid;
}

void OnDisconnect(mosquitto*, void* user, int) {
    static_cast<Progress*>(user)->disconnected = true;
}

std::string MosquittoError(int rc) {
    if (rc == MOSQ_ERR_ERRNO) {
        return std::strerror(errno);
    }
    return mosquitto_strerror(rc);
}

}  // namespace

bool MqttPublisher::Publish(const Settings& settings, const std::string& payload,
                            std::string& error) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { mosquitto_lib_init(); });

    const std::string where = "MQTT broker " + settings.host + ":" + std::to_string(settings.port);
    Progress progress;
    const std::string clientId =
        settings.clientId + "-" + sim_common::ToHex(sim_common::RandomBytes(4));
    std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> client(
        mosquitto_new(clientId.c_str(), true, &progress), &mosquitto_destroy);
    if (!client) {
        error = "cannot create an MQTT client: " + std::string(std::strerror(errno));
        return false;
    }
    mosquitto_connect_callback_set(client.get(), OnConnect);
    mosquitto_publish_callback_set(client.get(), OnPublish);
    mosquitto_disconnect_callback_set(client.get(), OnDisconnect);

    const auto deadline = std::chrono::steady_clock::now() + settings.timeout;
    const auto loopUntil = [&](auto done) {
        while (!done()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || progress.disconnected) {
                return false;
            }
            const int rc = mosquitto_loop(client.get(),
                                          static_cast<int>(std::min<long>(left.count(), 100)), 1);
            if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
                return done();
            }
        }
        return true;
    };

    int rc = mosquitto_connect(client.get(), settings.host.c_str(), settings.port, 30);
    if (rc != MOSQ_ERR_SUCCESS) {
        error = "cannot connect to " + where + ": " + MosquittoError(rc);
        return false;
    }
    if (!loopUntil([&] { return progress.connackCode >= 0; }) || !progress.connected) {
        error = progress.connackCode > 0 ? where + " refused the connection: " +
                                               mosquitto_connack_string(progress.connackCode)
                                         : "no answer from " + where + " within " +
                                               std::to_string(settings.timeout.count()) + " ms";
        return false;
    }
    int mid = 0;
    rc = mosquitto_publish(client.get(), &mid, settings.topic.c_str(),
                           static_cast<int>(payload.size()), payload.data(), settings.qos,
                           settings.retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        error = "cannot publish on '" + settings.topic + "': " + MosquittoError(rc);
        return false;
    }
    if (!loopUntil([&] { return progress.publishedMid == mid; })) {
        error = where + " did not take the message within " +
                std::to_string(settings.timeout.count()) + " ms";
        return false;
    }
    mosquitto_disconnect(client.get());
    loopUntil([&] { return progress.disconnected; });
    return true;
}

}  // namespace backend_sim
