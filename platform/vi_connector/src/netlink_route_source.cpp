#include "netlink_route_source.hpp"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "csc_logging/csc_logging.hpp"
#include "poll_deadline.hpp"

namespace vi_connector {
namespace {

using unique_fd::UniqueFd;

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBufferBytes = 32 * 1024;
// The kernel answers a lookup at once; this only bounds a kernel that does not.
constexpr int kAnswerLimitMs = 1000;
// Every address gets this route when the kernel cannot be asked.
constexpr const char* kStandInRoute = "unknown (no netlink)";

// NLMSG_OK, whose comparison of a signed length with an unsigned one clang rejects.
bool MessageFits(const nlmsghdr* header, int left) {
    return left >= static_cast<int>(sizeof(nlmsghdr)) && header->nlmsg_len >= sizeof(nlmsghdr) &&
           header->nlmsg_len <= static_cast<unsigned>(left);
}

UniqueFd OpenRouteSocket(std::uint32_t groups) {
    UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = groups;
    if (fd && ::bind(fd.Get(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        fd.Reset();
    }
    return fd;
}

// One datagram from the kernel (never from another process); its length, or -1.
ssize_t ReceiveFromKernel(int fd, std::vector<char>& buffer, int& error) {
    for (;;) {
        sockaddr_nl from{};
        iovec io{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof(from);
        message.msg_iov = &io;
        message.msg_iovlen = 1;
        const ssize_t got = ::recvmsg(fd, &message, MSG_DONTWAIT);
        if (got < 0) {
            error = errno;
            if (error == EINTR) {
                continue;
            }
            return -1;
        }
        if (from.nl_pid != 0 || (message.msg_flags & MSG_TRUNC) != 0) {
            continue;
        }
        return got;
    }
}

// Appends one attribute to a request being built in `request`.
void AddAttribute(std::vector<char>& request, unsigned short type, const void* data,
                  std::size_t size) {
    const std::size_t at = NLMSG_ALIGN(request.size());
    request.resize(at + RTA_SPACE(size));
    auto* attribute = reinterpret_cast<rtattr*>(request.data() + at);
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
    std::memcpy(RTA_DATA(attribute), data, size);
    reinterpret_cast<nlmsghdr*>(request.data())->nlmsg_len =
        static_cast<std::uint32_t>(at + RTA_LENGTH(size));
}

// NLMSG_DATA without its C cast.
template <typename Payload>
Payload* PayloadOf(const nlmsghdr* header) {
    return reinterpret_cast<Payload*>(reinterpret_cast<std::uintptr_t>(header) + NLMSG_HDRLEN);
}

std::string AddressText(int family, const void* bytes) {
    char text[INET6_ADDRSTRLEN] = {};
    return ::inet_ntop(family, bytes, text, sizeof(text)) != nullptr ? text : "";
}

}  // namespace

NetlinkRouteSource::NetlinkRouteSource() : buffer_(kBufferBytes) {
    events_ = OpenRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                              RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE);
    if (events_) {
        queries_ = OpenRouteSocket(0);
    }
    if (!queries_) {
        csc_logging::CSCLogging::Warning(
            std::string("VIConnector: cannot watch the kernel's routes (netlink: ") +
            std::strerror(errno) + "); the backend's reachability is probed alone");
        events_.Reset();
    }
}

RouteSourceIf::Wakeup NetlinkRouteSource::Wait(Clock::time_point deadline, int wakeFd) {
    for (;;) {
        pollfd fds[2] = {{wakeFd, POLLIN, 0}, {events_.Get(), POLLIN, 0}};
        const int ready = ::poll(fds, events_ ? 2 : 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            csc_logging::CSCLogging::Error(std::string("VIConnector: route watch: poll: ") +
                                           std::strerror(errno));
            return Wakeup::kWoken;  // the caller looks again rather than spin here
        }
        if (ready == 0) {
            return Wakeup::kDeadline;
        }
        if ((fds[1].revents & POLLIN) != 0 && DrainEvents()) {
            return Wakeup::kChange;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            return Wakeup::kWoken;
        }
    }
}

bool NetlinkRouteSource::DrainEvents() {
    bool changed = false;
    for (;;) {
        int error = 0;
        const ssize_t got = ReceiveFromKernel(events_.Get(), buffer_, error);
        if (got < 0) {
            // Events were lost while we were busy: anything may have changed.
            if (error == ENOBUFS) {
                changed = true;
                continue;
            }
            return changed;
        }
        int left = static_cast<int>(got);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer_.data()); MessageFits(header, left);
             header = NLMSG_NEXT(header, left)) {
            switch (header->nlmsg_type) {
                case RTM_NEWLINK:
                case RTM_DELLINK:
                case RTM_NEWADDR:
                case RTM_DELADDR:
                case RTM_NEWROUTE:
                case RTM_DELROUTE:
                    changed = true;
                    break;
                default:
                    break;
            }
        }
    }
}

std::vector<char> NetlinkRouteSource::Ask(const void* request, std::size_t size) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(queries_.Get(), request, size, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof(kernel)) != static_cast<ssize_t>(size)) {
        return {};
    }
    const std::uint32_t sequence = reinterpret_cast<const nlmsghdr*>(request)->nlmsg_seq;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kAnswerLimitMs);
    for (;;) {
        pollfd entry{queries_.Get(), POLLIN, 0};
        const int ready = ::poll(&entry, 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return {};
        }
        int error = 0;
        const ssize_t got = ReceiveFromKernel(queries_.Get(), buffer_, error);
        if (got < 0) {
            if (error == EAGAIN || error == EWOULDBLOCK) {
                continue;
            }
            return {};
        }
        int left = static_cast<int>(got);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer_.data()); MessageFits(header, left);
             header = NLMSG_NEXT(header, left)) {
            // An answer to an earlier question that timed out is passed over.
            if (header->nlmsg_seq != sequence) {
                continue;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                return {};  // no route, no such link
            }
            const auto* begin = reinterpret_cast<const char*>(header);
            return std::vector<char>(begin, begin + header->nlmsg_len);
        }
    }
}

std::string NetlinkRouteSource::LinkIfUp(int index) {
    struct {
        nlmsghdr header;
        ifinfomsg link;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = ++sequence_;
    request.link.ifi_family = AF_UNSPEC;
    request.link.ifi_index = index;
    const auto answer = Ask(&request, sizeof(request));
    if (answer.size() < NLMSG_LENGTH(sizeof(ifinfomsg))) {
        return "";
    }
    const auto* header = reinterpret_cast<const nlmsghdr*>(answer.data());
    const auto* link = PayloadOf<const ifinfomsg>(header);
    if (header->nlmsg_type != RTM_NEWLINK || (link->ifi_flags & IFF_UP) == 0 ||
        (link->ifi_flags & IFF_RUNNING) == 0) {
        return "";
    }
    std::string name = "#" + std::to_string(index);
    int left = static_cast<int>(IFLA_PAYLOAD(header));
    for (const auto* attribute = IFLA_RTA(link); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == IFLA_IFNAME) {
            const auto* text = static_cast<const char*>(RTA_DATA(attribute));
            name.assign(text, ::strnlen(text, RTA_PAYLOAD(attribute)));
        }
    }
    return "dev " + name;
}

std::string NetlinkRouteSource::RouteTo(const std::string& address) {
    if (!queries_) {
        return kStandInRoute;
    }
    unsigned char bytes[16];
    int family = AF_INET;
    std::size_t length = 4;
    if (::inet_pton(AF_INET, address.c_str(), bytes) != 1) {
        if (::inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
            return "";
        }
        family = AF_INET6;
        length = 16;
    }
    std::vector<char> request(NLMSG_LENGTH(sizeof(rtmsg)));
    auto* header = reinterpret_cast<nlmsghdr*>(request.data());
    header->nlmsg_len = static_cast<std::uint32_t>(request.size());
    header->nlmsg_type = RTM_GETROUTE;
    header->nlmsg_flags = NLM_F_REQUEST;
    header->nlmsg_seq = ++sequence_;
    auto* route = PayloadOf<rtmsg>(header);
    route->rtm_family = static_cast<unsigned char>(family);
    route->rtm_dst_len = static_cast<unsigned char>(length * 8);
    AddAttribute(request, RTA_DST, bytes, length);

    auto answer = Ask(request.data(), request.size());
    if (answer.size() < NLMSG_LENGTH(sizeof(rtmsg))) {
        return "";
    }
    const auto* reply = reinterpret_cast<nlmsghdr*>(answer.data());
    auto* found = PayloadOf<rtmsg>(reply);
    if (reply->nlmsg_type != RTM_NEWROUTE ||
        (found->rtm_type != RTN_UNICAST && found->rtm_type != RTN_LOCAL)) {
        return "";  // unreachable, blackhole, prohibit
    }
    int outputLink = 0;
    std::string gateway;
    int left = static_cast<int>(RTM_PAYLOAD(reply));
    for (const auto* attribute = RTM_RTA(found); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == RTA_OIF && RTA_PAYLOAD(attribute) >= sizeof(int)) {
            std::memcpy(&outputLink, RTA_DATA(attribute), sizeof(int));
        } else if (attribute->rta_type == RTA_GATEWAY && RTA_PAYLOAD(attribute) == length) {
            gateway = AddressText(family, RTA_DATA(attribute));
        }
    }
    const std::string link = outputLink > 0 ? LinkIfUp(outputLink) : "";
    if (link.empty()) {
        return "";
    }
    return gateway.empty() ? link : link + " via " + gateway;
}

}  // namespace vi_connector
