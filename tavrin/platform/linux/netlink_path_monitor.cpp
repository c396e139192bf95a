#include "tavrin/platform/linux/netlink_path_monitor.h"

#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/path_evaluation.h"
#include "tavrin/platform/internal/result.h"

namespace tavrin::platform {

namespace {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

std::string errnoText(int error) { return std::strerror(error); }

// Enough for every dump message of an ordinary system (the kernel sizes them
// to the reader's buffer); a larger one grows the dump buffer first. Two of
// these (dump and events) stay small on a small board.
constexpr std::size_t kReceiveBufferSize = 16 * 1024;

// Receives one datagram from the kernel; -1 with errno on failure. Datagrams
// not sent by the kernel (port id 0) are dropped and reported as size 0.
ssize_t receiveFromKernel(int fd, void* buffer, std::size_t size, int flags, bool& truncated) {
    sockaddr_nl from{};
    iovec iov{buffer, size};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    ssize_t n;
    do {
        n = ::recvmsg(fd, &msg, flags);
    } while (n < 0 && errno == EINTR);
    truncated = n >= 0 && (msg.msg_flags & MSG_TRUNC);
    if (n >= 0 && from.nl_pid != 0) return 0;
    return n;
}

template <class F>
void forEachAttribute(const rtattr* rta, int length, F&& f) {
    for (; RTA_OK(rta, length); rta = RTA_NEXT(rta, length)) f(rta);
}

// A socket for request-and-dump conversations with the kernel (no multicast groups).
class RouteQuery {
public:
    tavrin::detail::Status open() {
        fd_ = Fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        if (!fd_) return failure("query socket", errno);
        // The kernel answers at once; the timeout only guards against a wedged socket.
        timeval timeout{5, 0};
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        if (::bind(fd_.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            const int error = errno;
            fd_.reset();
            return failure("query socket", error);
        }
        return {};
    }

    // The path as the kernel's tables show it now; absent on failure (logged).
    std::optional<PathStatus> status() {
        // A dump interrupted by a concurrent change is inconsistent; take it again.
        for (int attempt = 0; attempt < 5; ++attempt) {
            std::vector<detail::LinkFact> links;
            std::vector<detail::DefaultRouteFact> routes;
            Dump dumped = dumpLinks(links);
            if (dumped && *dumped) dumped = dumpRoutes(AF_INET, routes);
            if (dumped && *dumped) dumped = dumpRoutes(AF_INET6, routes);
            if (!dumped) {
                logError("Network path monitor: " + dumped.error().message);
                return std::nullopt;
            }
            if (*dumped) return detail::evaluatePath(links, routes);
        }
        logError("Network path monitor: routing tables keep changing during reads");
        return std::nullopt;
    }

private:
    // Whether the dump is consistent (false: a concurrent change interrupted it), or why it failed.
    using Dump = tavrin::detail::Result<bool>;

    template <class Body, class OnMessage>
    Dump dump(std::uint16_t type, const Body& body, OnMessage&& onMessage) {
        struct {
            nlmsghdr header;
            Body body;
        } request{};
        request.header.nlmsg_len = NLMSG_LENGTH(sizeof(Body));
        request.header.nlmsg_type = type;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.header.nlmsg_seq = ++sequence_;
        request.body = body;
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        ssize_t sent;
        do {
            sent = ::sendto(fd_.get(), &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
                            sizeof kernel);
        } while (sent < 0 && errno == EINTR);
        if (sent < 0) return failure("send", errno);

        bool interrupted = false;
        for (;;) {
            // A message larger than the buffer (a link with many virtual
            // functions, say) would be cut: its size is read first.
            ssize_t pending;
            do {
                pending = ::recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC);
            } while (pending < 0 && errno == EINTR);
            if (pending < 0) return failure("receive", errno);
            if (static_cast<std::size_t>(pending) > buffer_.size()) buffer_.resize(static_cast<std::size_t>(pending));
            bool truncated = false;
            const ssize_t n = receiveFromKernel(fd_.get(), buffer_.data(), buffer_.size(), 0, truncated);
            if (n < 0) return failure("receive", errno);
            if (truncated) return failure("receive", EMSGSIZE);
            int length = static_cast<int>(n);
            // NLMSG_OK compares the header's unsigned length with this int; GCC
            // hides that inside the system macro, clang warns.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
            for (auto* h = reinterpret_cast<const nlmsghdr*>(buffer_.data()); NLMSG_OK(h, length);
                 h = NLMSG_NEXT(h, length)) {
#pragma GCC diagnostic pop
                if (h->nlmsg_seq != sequence_) continue;  // a late answer to an abandoned request
                if (h->nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
                if (h->nlmsg_type == NLMSG_DONE) return !interrupted;
                if (h->nlmsg_type == NLMSG_ERROR) {
                    const auto* err = static_cast<const nlmsgerr*>(NLMSG_DATA(h));
                    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return failure("read", EBADMSG);
                    if (err->error == 0) continue;
                    if (err->error == -EBUSY || err->error == -EINTR) return false;
                    return failure("dump", -err->error);
                }
                onMessage(h);
            }
        }
    }

    Dump dumpLinks(std::vector<detail::LinkFact>& links) {
        ifinfomsg body{};
        body.ifi_family = AF_UNSPEC;
        return dump(RTM_GETLINK, body, [&](const nlmsghdr* h) {
            if (h->nlmsg_type != RTM_NEWLINK || h->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
            const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(h));
            detail::LinkFact link;
            link.index = info->ifi_index;
            link.flags = info->ifi_flags;
            forEachAttribute(IFLA_RTA(info), static_cast<int>(IFLA_PAYLOAD(h)), [&](const rtattr* rta) {
                if (rta->rta_type == IFLA_OPERSTATE && RTA_PAYLOAD(rta) >= 1)
                    link.operState = *static_cast<const unsigned char*>(RTA_DATA(rta));
            });
            links.push_back(link);
        });
    }

    Dump dumpRoutes(unsigned char family, std::vector<detail::DefaultRouteFact>& routes) {
        rtmsg body{};
        body.rtm_family = family;
        return dump(RTM_GETROUTE, body, [&](const nlmsghdr* h) {
            if (h->nlmsg_type != RTM_NEWROUTE || h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
            const auto* rt = static_cast<const rtmsg*>(NLMSG_DATA(h));
            if (rt->rtm_family != family || rt->rtm_dst_len != 0 || rt->rtm_type != RTN_UNICAST) return;
            if (rt->rtm_flags & (RTM_F_CLONED | RTNH_F_DEAD | RTNH_F_LINKDOWN)) return;
            std::uint32_t table = rt->rtm_table;
            detail::DefaultRouteFact route;
            forEachAttribute(RTM_RTA(rt), static_cast<int>(RTM_PAYLOAD(h)), [&](const rtattr* rta) {
                switch (rta->rta_type) {
                    case RTA_TABLE:
                        if (RTA_PAYLOAD(rta) >= sizeof(std::uint32_t)) std::memcpy(&table, RTA_DATA(rta), sizeof table);
                        break;
                    case RTA_OIF:
                        if (RTA_PAYLOAD(rta) >= sizeof(int)) {
                            int oif;
                            std::memcpy(&oif, RTA_DATA(rta), sizeof oif);
                            route.outputInterfaces.push_back(oif);
                        }
                        break;
                    case RTA_MULTIPATH: {
                        auto remaining = static_cast<int>(RTA_PAYLOAD(rta));
                        const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(rta));
                        while (remaining >= static_cast<int>(sizeof(rtnexthop)) && hop->rtnh_len >= sizeof(rtnexthop) &&
                               hop->rtnh_len <= remaining) {
                            if (!(hop->rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)))
                                route.outputInterfaces.push_back(hop->rtnh_ifindex);
                            remaining -= RTNH_ALIGN(hop->rtnh_len);
                            hop = RTNH_NEXT(hop);
                        }
                        break;
                    }
                    case RTA_NH_ID: route.usesNexthopObject = true; break;
                    default: break;
                }
            });
            // Other tables are reached only through policy rules that ordinary traffic may not match.
            if (table != RT_TABLE_MAIN) return;
            routes.push_back(std::move(route));
        });
    }

    static tavrin::detail::Error failure(const char* what, int error) {
        return {error, std::string("rtnetlink ") + what + " failed: " + errnoText(error)};
    }

    Fd fd_;
    std::uint32_t sequence_ = 0;
    std::vector<char> buffer_ = std::vector<char>(kReceiveBufferSize);
};

}  // namespace

struct NetlinkPathMonitor::Reader {
    Fd events;  // multicast subscription to link, address and route changes
    Fd wake;    // eventfd that ends the thread
    RouteQuery query;
    std::shared_ptr<detail::PathDelivery> delivery;
    std::thread thread;
    const std::uint32_t generation = forkGeneration();

    void stop() {
        if (!thread.joinable()) return;
        if (generation != forkGeneration()) {  // a forked child's copy: the thread and its wake-up are the parent's
            keepForever(std::make_shared<std::thread>(std::move(thread)));
            return;
        }
        const std::uint64_t one = 1;
        while (::write(wake.get(), &one, sizeof one) < 0 && errno == EINTR) {
        }
        thread.join();  // never waits long: the thread blocks on nothing but poll and the kernel
    }

    // Reads every pending notification; true when the tables may have changed.
    bool drainEvents(std::vector<char>& buffer) {
        bool changed = false;
        for (;;) {
            bool truncated = false;
            const ssize_t n = receiveFromKernel(events.get(), buffer.data(), buffer.size(), MSG_DONTWAIT, truncated);
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) return changed;
                if (errno == ENOBUFS) {  // notifications were lost: read the tables again
                    changed = true;
                    continue;
                }
                logError([&] { return "Network path monitor: rtnetlink receive failed: " + errnoText(errno); });
                return true;
            }
            if (n > 0) changed = true;
            if (truncated) changed = true;
        }
    }

    void run() {
        setCurrentThreadName("com.tavrin.NetworkPathMonitor");
        std::vector<char> buffer(kReceiveBufferSize);
        std::optional<PathStatus> last;
        auto refresh = [&] {
            const auto status = query.status();
            if (!status || status == last) return;
            last = status;
            delivery->deliver(*status);
        };
        refresh();
        for (;;) {
            pollfd fds[2] = {{events.get(), POLLIN, 0}, {wake.get(), POLLIN, 0}};
            const int ready = ::poll(fds, 2, -1);
            if (ready < 0) {
                if (errno == EINTR) continue;
                logError([&] { return "Network path monitor: poll failed: " + errnoText(errno); });
                return;
            }
            if (fds[1].revents) return;
            if (fds[0].revents && drainEvents(buffer)) refresh();
        }
    }
};

NetlinkPathMonitor::NetlinkPathMonitor() : delivery_(std::make_shared<detail::PathDelivery>()) {}

NetlinkPathMonitor::~NetlinkPathMonitor() { cancel(); }

void NetlinkPathMonitor::setUpdateHandler(UpdateHandler handler) { delivery_->setHandler(std::move(handler)); }

void NetlinkPathMonitor::start(SerialQueue& queue) {
    std::lock_guard lock(mutex_);
    if (!delivery_->start(queue)) return;
    auto reader = std::make_unique<Reader>();
    reader->delivery = delivery_;
    auto failed = [](const char* what) {
        const int error = errno;
        logError(
            [&] { return std::string("Network path monitor unavailable: ") + what + " failed: " + errnoText(error); });
    };
    // Subscribe before the first reading so no change between the two is missed.
    reader->events = Fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!reader->events) return failed("rtnetlink socket");
    const int receiveBuffer = 1 << 20;
    ::setsockopt(reader->events.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(reader->events.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
        return failed("rtnetlink bind");
    if (auto opened = reader->query.open(); !opened) {
        logError("Network path monitor unavailable: " + opened.error().message);
        return;
    }
    reader->wake = Fd(::eventfd(0, EFD_CLOEXEC));
    if (!reader->wake) return failed("eventfd");
    Reader* raw = reader.get();
    reader->thread = std::thread([raw] { raw->run(); });
    reader_ = std::move(reader);
}

void NetlinkPathMonitor::cancel() {
    delivery_->cancel();
    std::lock_guard lock(mutex_);
    if (reader_) {
        reader_->stop();
        reader_.reset();
    }
}

std::optional<PathStatus> NetlinkPathMonitor::currentStatus() {
    RouteQuery query;
    if (auto opened = query.open(); !opened) {
        logError("Network path monitor: " + opened.error().message);
        return std::nullopt;
    }
    return query.status();
}

}  // namespace tavrin::platform
