#include "vi_connector/vi_connector.hpp"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "connector_config.hpp"
#include "csc_logging/csc_logging.hpp"
#include "mosquitto_pub_sub.hpp"
#include "service_state_monitor.hpp"
#include "tcp_connect.hpp"
#include "tls_connector.hpp"

namespace vi_connector {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr int kSocketConnectTimeoutMs = 10000;

std::string ReadToken(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return {};
    }
    std::ostringstream content;
    content << in.rdbuf();
    std::string token = content.str();
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r' || token.back() == ' ' ||
                              token.back() == '\t')) {
        token.pop_back();
    }
    return token;
}

bool IsHttps(const std::string& url) {
    static const std::string kScheme = "https://";
    if (url.size() < kScheme.size()) {
        return false;
    }
    for (std::size_t i = 0; i < kScheme.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(url[i])) != kScheme[i]) {
            return false;
        }
    }
    return true;
}

MosquittoPubSub& PubSubOf(std::mutex& mutex, std::unique_ptr<MosquittoPubSub>& pubSub) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!pubSub) {
        pubSub = std::make_unique<MosquittoPubSub>();
    }
    return *pubSub;
}

}  // namespace

std::string VIConnector::ConfigPathFromEnvironment() {
    const char* path = std::getenv("KELVANE_VI_CONFIG");
    return (path != nullptr && *path != '\0') ? path : kDefaultConfigPath;
}

VIConnector::VIConnector(VISessionCallbackIf* sessionCallback, VIPubSubCallbackIf* pubSubCallback,
                         std::string configPath)
    : sessionCallback_(sessionCallback)
    , pubSubCallback_(pubSubCallback)
    , configPath_(std::move(configPath)) {}

VIConnector::VIConnector(NoConfiguration) {}

VIConnector::~VIConnector() {
    Stop();
}

void VIConnector::Start() {
    if (startThread_.joinable()) {
        startThread_.join();
    }
    sessionStatus_.store(SessionStatus::kStarting);
    startThread_ = std::thread([this] {
        std::string error;
        auto loaded = ConnectorConfig::Load(configPath_, error);
        SessionStatus status = SessionStatus::kRejected;
        std::shared_ptr<TlsConnector> tls;
        if (loaded) {
            for (const auto& transaction : loaded->transactions) {
                if (IsHttps(transaction.second.url) && !tls) {
                    tls = TlsConnector::Create(loaded->backendTls, error);
                    if (!tls) {
                        loaded.reset();
                        error = configPath_ + ": " + error;
                        break;
                    }
                }
            }
        }
        if (loaded) {
            std::lock_guard<std::mutex> lock(mutex_);
            config_ = std::make_shared<const ConnectorConfig>(std::move(*loaded));
            tls_ = std::move(tls);
            status = SessionStatus::kOk;
        } else {
            CSCLogging::Error("VIConnector: configuration rejected: " + error);
        }
        sessionStatus_.store(status);
        if (sessionCallback_ != nullptr) {
            sessionCallback_->VIConnectorStatus(status);
        }
    });
}

void VIConnector::Stop() {
    if (startThread_.joinable()) {
        startThread_.join();
    }
    std::shared_ptr<ServiceStateMonitor> monitor;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        monitor.swap(stateMonitor_);
    }
    monitor.reset();  // stops probing, outside the lock
}

SessionStatus VIConnector::GetSessionStatus() const {
    return sessionStatus_.load();
}

std::shared_ptr<const ConnectorConfig> VIConnector::Config() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return config_;
}

TokenResult VIConnector::GetToken(const std::string& transactionTypeId) {
    const auto config = Config();
    if (!config) {
        return {0, {}};
    }
    const auto found = config->transactions.find(transactionTypeId);
    if (found == config->transactions.end()) {
        CSCLogging::Warning("VIConnector: no [transaction " + transactionTypeId + "] configured");
        return {0, {}};
    }
    const auto& transaction = found->second;
    std::string token =
        transaction.tokenFile.empty() ? transaction.token : ReadToken(transaction.tokenFile);
    if (token.empty()) {
        CSCLogging::Warning("VIConnector: token file '" + transaction.tokenFile +
                            "' is missing or empty");
        return {0, {}};
    }
    return {1, std::move(token)};
}

UrlResult VIConnector::GetInvocationUrl(const std::string& transactionTypeId) {
    const auto config = Config();
    if (!config) {
        return {1, {}};
    }
    const auto found = config->transactions.find(transactionTypeId);
    if (found == config->transactions.end()) {
        CSCLogging::Warning("VIConnector: no [transaction " + transactionTypeId + "] configured");
        return {2, {}};
    }
    return {0, found->second.url};
}

unsigned int VIConnector::SubscribeTransactionTypeState(std::string transactionTypeId,
                                                        VIServiceControllerCallbackIf* callback,
                                                        unsigned int /*flags*/) {
    if (callback == nullptr) {
        return 0;
    }
    std::shared_ptr<ServiceStateMonitor> monitor;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!config_) {
            CSCLogging::Warning("VIConnector: connection state of " + transactionTypeId +
                                " asked for before a successful Start()");
            return 0;
        }
        if (!stateMonitor_) {
            stateMonitor_ = ServiceStateMonitor::FromConfig(*config_);
            if (forcedConnectionState_) {
                stateMonitor_->Force(forcedConnectionState_);
            }
        }
        monitor = stateMonitor_;
    }
    monitor->Subscribe(transactionTypeId, callback);
    return 1;
}

void VIConnector::ForceConnectionState(std::optional<std::uint8_t> state) {
    std::shared_ptr<ServiceStateMonitor> monitor;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        forcedConnectionState_ = state;
        monitor = stateMonitor_;
    }
    if (monitor) {
        monitor->Force(state);
    }
}

SocketResult VIConnector::SocketConnect(const std::string& transactionTypeId,
                                        const std::string& host, std::uint16_t port) {
    std::shared_ptr<const ConnectorConfig> config;
    std::shared_ptr<TlsConnector> tls;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        config = config_;
        tls = tls_;
    }
    if (config) {
        const auto found = config->transactions.find(transactionTypeId);
        if (found != config->transactions.end() && IsHttps(found->second.url)) {
            // Never in plain text: without TLS there is no connection at all.
            if (!tls) {
                CSCLogging::Error("VIConnector: no TLS for " + transactionTypeId);
                return {TlsConnector::kTlsFailed, -1};
            }
            return tls->Connect(host, port, kSocketConnectTimeoutMs);
        }
    }
    return TcpConnect(host, port, kSocketConnectTimeoutMs);
}

std::uint32_t VIConnector::PubSubConnect(VIPubSubCallbackIf* callback) {
    const auto config = Config();
    if (!config) {
        CSCLogging::Error(
            "VIConnector: PubSubConnect before a successful Start(): no MQTT configuration");
        return pubsub_status::kFailed;
    }
    if (callback == nullptr) {
        std::lock_guard<std::mutex> lock(mutex_);
        callback = pubSubCallback_;
    }
    return PubSubOf(mutex_, pubSub_).Connect(config->mqtt, callback);
}

void VIConnector::PubSubDetach(VIPubSubCallbackIf* callback) {
    MosquittoPubSub* pubSub = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pubSubCallback_ == callback) {
            pubSubCallback_ = nullptr;
        }
        pubSub = pubSub_.get();
    }
    if (pubSub != nullptr) {
        pubSub->Detach(callback);
    }
}

std::uint32_t VIConnector::PubSubDisconnect() {
    return PubSubOf(mutex_, pubSub_).Disconnect();
}

SubscribeResult VIConnector::PubSubSubscribe(const std::string& topic, bool flag) {
    return PubSubOf(mutex_, pubSub_).Subscribe(topic, flag);
}

std::uint32_t VIConnector::PubSubPublish(const std::string& topic,
                                         const std::vector<std::uint8_t>& payload, unsigned int qos,
                                         unsigned int messageExpirySeconds,
                                         PublishPayloadFormat format,
                                         const std::string& contentType, bool retain) {
    return PubSubOf(mutex_, pubSub_)
        .Publish(topic, payload, qos, messageExpirySeconds, format, contentType, retain);
}

}  // namespace vi_connector
