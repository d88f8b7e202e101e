#include "test_support/scripted_mqtt_broker.hpp"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>

#include "test_support/loopback.hpp"

namespace kelvane::testing {
namespace {

constexpr std::uint8_t kConnect = 1;
constexpr std::uint8_t kSubscribe = 8;
constexpr std::uint8_t kPingreq = 12;
constexpr std::uint8_t kDisconnect = 14;
constexpr int kIoTimeoutSeconds = 30;

std::string VarInt(std::size_t value) {
    std::string bytes;
    do {
        auto byte = static_cast<char>(value % 128);
        value /= 128;
        if (value > 0) {
            byte = static_cast<char>(byte | 0x80);
        }
        bytes += byte;
    } while (value > 0);
    return bytes;
}

std::string MakePacket(std::uint8_t first, const std::string& body) {
    return static_cast<char>(first) + VarInt(body.size()) + body;
}

std::string Uint16(std::uint16_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value & 0xff)};
}

}  // namespace

// One accepted connection, plain or TLS, on a blocking socket: every wait ends
// on time-out or when the broker shuts the socket down.
class ScriptedMqttBroker::Connection {
public:
    Connection(int fd, SSL_CTX* tls) : fd_(fd) {
        const timeval timeout{kIoTimeoutSeconds, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        if (tls != nullptr) {
            ssl_ = SSL_new(tls);
            SSL_set_fd(ssl_, fd_);
            open_ = SSL_accept(ssl_) == 1;
        }
    }
    ~Connection() {
        if (ssl_ != nullptr) {
            SSL_shutdown(ssl_);
            SSL_free(ssl_);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// The next whole packet; empty at the end of the connection.
    std::string ReadPacket() {
        std::string packet;
        char byte = 0;
        if (!Read(&byte, 1)) {
            return {};
        }
        packet += byte;
        std::size_t remaining = 0;
        for (std::size_t shift = 0; shift < 28; shift += 7) {
            if (!Read(&byte, 1)) {
                return {};
            }
            packet += byte;
            remaining |= static_cast<std::size_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0) {
                break;
            }
        }
        const std::size_t headerSize = packet.size();
        packet.resize(headerSize + remaining);
        return Read(&packet[headerSize], remaining) ? packet : std::string();
    }

    bool Write(const std::string& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const std::size_t chunk = bytes.size() - sent;
            const int put =
                ssl_ != nullptr
                    ? SSL_write(ssl_, bytes.data() + sent, static_cast<int>(chunk))
                    : static_cast<int>(::send(fd_, bytes.data() + sent, chunk, MSG_NOSIGNAL));
            if (put <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(put);
        }
        return true;
    }

    bool Open() const { return open_; }

private:
    bool Read(char* into, std::size_t size) {
        for (std::size_t got = 0; got < size;) {
            const std::size_t chunk = size - got;
            const int read = ssl_ != nullptr ? SSL_read(ssl_, into + got, static_cast<int>(chunk))
                                             : static_cast<int>(::recv(fd_, into + got, chunk, 0));
            if (read <= 0) {
                return false;
            }
            got += static_cast<std::size_t>(read);
        }
        return true;
    }

    int fd_;
    SSL* ssl_ = nullptr;
    bool open_ = true;
};

ScriptedMqttBroker::ScriptedMqttBroker(Options options) : options_(std::move(options)) {
    if (!options_.certFile.empty()) {
        SSL_CTX* tls = SSL_CTX_new(TLS_server_method());
        if (tls == nullptr ||
            SSL_CTX_use_certificate_chain_file(tls, options_.certFile.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(tls, options_.keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
            // The server's own security level must not be what refuses a suite.
            (!options_.suite.empty() &&
             (SSL_CTX_set_max_proto_version(tls, TLS1_2_VERSION) != 1 ||
              SSL_CTX_set_cipher_list(tls, (options_.suite + ":@SECLEVEL=0").c_str()) != 1)) ||
            (!options_.clientCaFile.empty() &&
             SSL_CTX_load_verify_locations(tls, options_.clientCaFile.c_str(), nullptr) != 1)) {
            SSL_CTX_free(tls);
            throw std::runtime_error("ScriptedMqttBroker: cannot load " + options_.certFile);
        }
        if (!options_.clientCaFile.empty()) {
            SSL_CTX_set_verify(tls, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
        tls_ = tls;
    }
    listenFd_ = ListenOnLoopback(port_);
    thread_ = std::thread([this] { Serve(); });
}

ScriptedMqttBroker::~ScriptedMqttBroker() {
    // Shutting the sockets down ends a blocked accept or read at once.
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        ::shutdown(servingFd_, SHUT_RDWR);
    }
    ::shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    ::close(listenFd_);
    SSL_CTX_free(static_cast<SSL_CTX*>(tls_));
}

std::size_t ScriptedMqttBroker::Connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
}

std::size_t ScriptedMqttBroker::Handshakes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return handshakes_;
}

std::vector<ScriptedMqttBroker::Packet> ScriptedMqttBroker::WaitForPackets(
    std::uint8_t type, std::size_t count, std::chrono::milliseconds timeout) const {
    std::vector<Packet> found;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] {
        found.clear();
        for (const auto& packet : packets_) {
            if (packet.type == type) {
                found.push_back(packet);
            }
        }
        return found.size() >= count;
    });
    return found;
}

std::string ScriptedMqttBroker::Publish(const std::string& topic, const std::string& payload,
                                        int qos, std::uint16_t id, bool v5, bool retain) {
    std::string body = Uint16(static_cast<std::uint16_t>(topic.size())) + topic;
    if (qos > 0) {
        body += Uint16(id);
    }
    if (v5) {
        body += '\0';  // no properties
    }
    const auto first = static_cast<std::uint8_t>(0x30 | (qos << 1) | (retain ? 1 : 0));
    return MakePacket(first, body + payload);
}

std::string ScriptedMqttBroker::Disconnect(std::uint8_t reason, const std::string& reasonString) {
    std::string properties;
    if (!reasonString.empty()) {
        properties =
            '\x1f' + Uint16(static_cast<std::uint16_t>(reasonString.size())) + reasonString;
    }
    return MakePacket(0xe0, static_cast<char>(reason) + VarInt(properties.size()) + properties);
}

void ScriptedMqttBroker::Serve() {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        std::unique_lock<std::mutex> lock(mutex_);
        if (stopping_ || fd < 0) {
            ::close(fd);
            if (stopping_) {
                return;
            }
            continue;
        }
        servingFd_ = fd;
        const std::size_t index = connections_++;
        lock.unlock();
        changed_.notify_all();
        if (Connection connection(fd, static_cast<SSL_CTX*>(tls_)); connection.Open()) {
            lock.lock();
            ++handshakes_;
            lock.unlock();
            Play(connection, index);
        }
        lock.lock();
        servingFd_ = -1;
        ::close(fd);
    }
}

void ScriptedMqttBroker::Play(Connection& connection, std::size_t index) {
    bool v5 = false;
    for (std::string packet; !(packet = connection.ReadPacket()).empty();) {
        const auto type = static_cast<std::uint8_t>(static_cast<unsigned char>(packet[0]) >> 4);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            packets_.push_back({type, index, packet});
        }
        changed_.notify_all();
        // The body starts after the fixed header: skip the length's bytes.
        std::size_t body = 1;
        while ((packet[body++] & 0x80) != 0) {
        }
        switch (type) {
            case kConnect: {
                // Protocol name "MQTT" (length 4), then the protocol level.
                v5 = packet[body + 6] == 5;
                if (v5 && options_.onlyV311) {
                    connection.Write(std::string("\x20\x02\x00\x01", 4));
                    return;
                }
                if (!connection.Write(v5 ? std::string("\x20\x03\x00\x00\x00", 5)
                                         : std::string("\x20\x02\x00\x00", 4)) ||
                    !connection.Write(options_.afterConnack) || options_.closeAfterConnack) {
                    return;
                }
                break;
            }
            case kSubscribe: {
                const std::string id = packet.substr(body, 2);
                const std::string suback =
                    v5 ? MakePacket(0x90, id + '\0' + '\x01') : MakePacket(0x90, id + '\x01');
                if (!connection.Write(suback) || !connection.Write(options_.afterSuback)) {
                    return;
                }
                break;
            }
            case kPingreq:
                connection.Write(std::string("\xd0\x00", 2));
                break;
            case kDisconnect:
                return;
            default:
                break;
        }
    }
}

}  // namespace kelvane::testing
