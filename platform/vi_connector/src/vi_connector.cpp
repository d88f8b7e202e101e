#include "vi_connector/vi_connector.hpp"

#include <cstdlib>

#include "connector_config.hpp"
#include "csc_logging/csc_logging.hpp"
#include "loopback_host.hpp"
#include "mosquitto_pub_sub.hpp"
#include "secret_file.hpp"
#include "service_state_monitor.hpp"
#include "tcp_connect.hpp"
#include "tls_connector.hpp"
#include "tls_policy.hpp"
#include "wiped_string.hpp"

namespace vi_connector {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr int kSocketConnectTimeoutMs = 10000;

// Tokens are short; a larger file is a mistake or an attack.
constexpr std::size_t kMaxTokenBytes = 8 * 1024;

// A bearer token goes into a request header verbatim, so only the b64token
// characters of RFC 6750 are let through: no CR, LF, space or control byte
// can add a header of its own.
bool IsBearerToken(const std::string& token) {
    std::size_t i = 0;
    const auto tokenChar = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.' || c == '_' || c == '~' || c == '+' || c == '/';
    };
    while (i < token.size() && tokenChar(token[i])) {
        ++i;
    }
    if (i == 0) {
        return false;
    }
    while (i < token.size() && token[i] == '=') {
        ++i;
    }
    return i == token.size();
}

// The file's final line break (and trailing blanks) are not part of the token.
void TrimTrailingSpace(std::string& token) {
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r' || token.back() == ' ' ||
                              token.back() == '\t')) {
        token.pop_back();
    }
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
        UseSecureHeapForKeys();  // before the backend's key, and the broker's after Start()
        std::string error;
        auto loaded = ConnectorConfig::Load(configPath_, error);
        SessionStatus status = SessionStatus::kRejected;
        std::shared_ptr<TlsConnector> tls;
        if (loaded) {
            for (const auto& transaction : loaded->transactions) {
                if (SchemeOfUrl(transaction.second.url) == "https" && !tls) {
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
    std::string token;
    // The result takes the buffer; what stays here (a refused token, a short
    // token's small-string copy) is wiped.
    const WipeOnExit wipeToken(token);
    std::string source = "the inline token of " + configPath_;
    if (transaction.token.empty()) {
        std::string path = transaction.tokenFile;
        if (!transaction.tokenCredential.empty()) {
            const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
            if (directory == nullptr || *directory == '\0') {
                CSCLogging::Error("VIConnector: token for " + transactionTypeId + ": credential '" +
                                  transaction.tokenCredential +
                                  "' asked for, but CREDENTIALS_DIRECTORY is not set");
                return {0, {}};
            }
            path = std::string(directory) + "/" + transaction.tokenCredential;
        }
        source = "'" + path + "'";
        std::string error;
        auto content = ReadSecretFile(path, kMaxTokenBytes, error);
        if (!content) {
            CSCLogging::Error("VIConnector: token for " + transactionTypeId + ": " + error);
            return {0, {}};
        }
        token = std::move(*content);
        TrimTrailingSpace(token);
    } else {
        token = transaction.token;
    }
    if (token.empty()) {
        CSCLogging::Warning("VIConnector: token for " + transactionTypeId + ": " + source +
                            " is empty");
        return {0, {}};
    }
    if (!IsBearerToken(token)) {
        CSCLogging::Error("VIConnector: token for " + transactionTypeId + " from " + source +
                          " holds characters a bearer token cannot have; request not sent");
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
        }
        monitor = stateMonitor_;
    }
    monitor->Subscribe(transactionTypeId, callback);
    return 1;
}

SocketResult VIConnector::SocketConnect(const std::string& transactionTypeId,
                                        const std::string& host, std::uint16_t port) {
    std::shared_ptr<const ConnectorConfig> config;
    std::shared_ptr<TlsConnector> tls;
    std::shared_ptr<ServiceStateMonitor> monitor;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        config = config_;
        tls = tls_;
        monitor = stateMonitor_;
    }
    SocketResult result{TlsConnector::kTlsFailed, -1};
    bool https = false;
    if (config) {
        const auto found = config->transactions.find(transactionTypeId);
        https = found != config->transactions.end() && SchemeOfUrl(found->second.url) == "https";
    }
    if (!https) {
        result = TcpConnect(host, port, kSocketConnectTimeoutMs);
    } else if (tls) {
        result = tls->Connect(host, port, kSocketConnectTimeoutMs);
    } else {
        // Never in plain text: without TLS there is no connection at all.
        CSCLogging::Error("VIConnector: no TLS for " + transactionTypeId);
    }
    // A backend that did not take the connection may be gone: a refused TLS
    // handshake says nothing about reachability.
    if (result.status != 0 && result.status != TlsConnector::kTlsFailed && monitor) {
        monitor->ConnectionFailed();
    }
    return result;
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
