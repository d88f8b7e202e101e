#include "test_support/scripted_mqtt_broker.hpp"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
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
    Connection(int fd, SSL_CTX* tls) : fd_(fd), ssl_(tls != nullptr ? SSL_new(tls) : nullptr) {
        const timeval timeout{kIoTimeoutSeconds, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        open_ = ssl_ == nullptr || (SSL_set_fd(ssl_, fd_) == 1 && SSL_accept(ssl_) == 1);
    }
    ~Connection() {
        if (ssl_ != nullptr) {
            SSL_shutdown(ssl_);
            SSL_free(ssl_);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool Open() const { return open_; }

    /// The next whole packet and where its body starts; empty at the end of the connection.
    std::string ReadPacket(std::size_t& body) {
        std::string packet(1, '\0');
        std::size_t remaining = 0;
        char byte = 0;
        if (!Transfer(packet.data(), 1, false)) {
            return {};
        }
        do {  // the remaining length: seven bits a byte, in at most four bytes
            if (!Transfer(&byte, 1, false)) {
                return {};
            }
            remaining |= static_cast<std::size_t>(byte & 0x7f) << (7 * (packet.size() - 1));
            packet += byte;
        } while ((byte & 0x80) != 0 && packet.size() < 5);
        body = packet.size();
        packet.resize(body + remaining);
        return Transfer(&packet[body], remaining, false) ? packet : std::string();
    }

    bool Write(std::string bytes) { return Transfer(bytes.data(), bytes.size(), true); }

private:
    /// Reads or writes all of `size` bytes; false when the connection ends first.
    bool Transfer(char* data, std::size_t size, bool write) {
        for (std::size_t done = 0; done < size;) {
            const std::size_t chunk = size - done;
            const int count =
                ssl_ != nullptr
                    ? (write ? SSL_write(ssl_, data + done, static_cast<int>(chunk))
                             : SSL_read(ssl_, data + done, static_cast<int>(chunk)))
                    : static_cast<int>(write ? ::send(fd_, data + done, chunk, MSG_NOSIGNAL)
                                             : ::recv(fd_, data + done, chunk, 0));
            if (count <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    int fd_;
    SSL* ssl_;
    bool open_;
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

std::vector<ScriptedMqttBroker::Packet> ScriptedMqttBroker::WaitForPackets(
    std::uint8_t type, std::size_t count, std::chrono::milliseconds timeout) const {
    std::vector<Packet> found;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] {
        found.clear();
        std::copy_if(packets_.begin(), packets_.end(), std::back_inserter(found),
                     [&](const Packet& packet) { return packet.type == type; });
        return found.size() >= count;
    });
    return found;
}

std::string ScriptedMqttBroker::Publish(const std::string& topic, const std::string& payload,
                                        int qos, std::uint16_t id, bool v5) {
    const std::string body = Uint16(static_cast<std::uint16_t>(topic.size())) + topic +
                             (qos > 0 ? Uint16(id) : "") +
                             std::string(v5 ? 1 : 0, '\0');  // no properties
    return MakePacket(static_cast<std::uint8_t>(0x30 | (qos << 1)), body + payload);
}

std::string ScriptedMqttBroker::Disconnect(std::uint8_t reason, const std::string& reasonString) {
    const std::string properties =
        reasonString.empty()
            ? ""
            : '\x1f' + Uint16(static_cast<std::uint16_t>(reasonString.size())) + reasonString;
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
        ++connections_;
        lock.unlock();
        if (Connection connection(fd, static_cast<SSL_CTX*>(tls_)); connection.Open()) {
            ++handshakes_;
            Play(connection);
        }
        lock.lock();
        servingFd_ = -1;
        ::close(fd);
    }
}

void ScriptedMqttBroker::Play(Connection& connection) {
    bool v5 = false;
    std::size_t body = 0;
    for (std::string packet; !(packet = connection.ReadPacket(body)).empty();) {
        const auto type = static_cast<std::uint8_t>(static_cast<unsigned char>(packet[0]) >> 4);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            packets_.push_back({type, packet});
        }
        changed_.notify_all();
        std::string answer;
        bool last = type == kDisconnect;
        if (type == kConnect) {
            // The protocol level follows the name "MQTT".
            v5 = packet.size() > body + 6 && packet[body + 6] == 5;
            const bool refused = v5 && options_.onlyV311;  // unacceptable protocol version
            last = refused || options_.closeAfterConnack;
            answer = refused
                         ? MakePacket(0x20, std::string("\0\1", 2))
                         : MakePacket(0x20, std::string(v5 ? 3 : 2, '\0')) + options_.afterConnack;
        } else if (type == kSubscribe) {
            answer =
                MakePacket(0x90, packet.substr(body, 2) + std::string(v5 ? 1 : 0, '\0') + '\x01') +
                options_.afterSuback;
        } else if (type == kPingreq) {
            answer = MakePacket(0xd0, "");
        }
        if (!connection.Write(answer) || last) {
            return;
        }
    }
}

}  // namespace kelvane::testing
