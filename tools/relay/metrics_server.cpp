// The smallest HTTP that a collector of metrics needs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/relay/base/pause.h"
#include "tools/relay/metrics.h"

namespace halvo::relay {

namespace {

constexpr int kRequestMilliseconds = 1000;
constexpr int kPauseMilliseconds = 100;
constexpr size_t kRequestBytes = 8192;

struct Listening {
    sockaddr_storage address{};
    socklen_t length = 0;
};

Listening loopback(const std::string &text) {
    const size_t colon = text.rfind(':');
    const std::string host = text.substr(0, colon);
    const int port = colon == std::string::npos ? 0 : std::atoi(text.c_str() + colon + 1);
    Listening at;
    in_addr v4{};
    if (port > 0 && port < 65536 && inet_pton(AF_INET, host.c_str(), &v4) == 1 &&
        (ntohl(v4.s_addr) >> 24) == 127) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr = v4;
        std::memcpy(&at.address, &address, at.length = sizeof address);
    } else if (port > 0 && port < 65536 && host == "[::1]") {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(static_cast<uint16_t>(port));
        address.sin6_addr = in6addr_loopback;
        std::memcpy(&at.address, &address, at.length = sizeof address);
    } else {
        throw ConfigError(
            "metrics: \"" + text +
            "\" is no loopback address with a port (127.0.0.1:9464), and no file:PATH");
    }
    return at;
}

} // namespace

MetricsServer::MetricsServer(const std::string &address, std::function<std::string()> text)
    : text_(std::move(text)) {
    const Listening at = loopback(address);
    listener_.reset(socket(at.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    if (listener_) setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (!listener_ ||
        bind(listener_.get(), reinterpret_cast<const sockaddr *>(&at.address), at.length) != 0 ||
        listen(listener_.get(), 16) != 0)
        throw ConfigError("metrics: " + address + ": " + std::strerror(errno));
    end_.reset(eventfd(0, EFD_CLOEXEC));
    thread_ = std::thread([this] { run(); });
}

MetricsServer::~MetricsServer() {
    eventfd_write(end_.get(), 1);
    thread_.join();
}

void MetricsServer::run() {
    for (;;) {
        pollfd both[] = {{listener_.get(), POLLIN, 0}, {end_.get(), POLLIN, 0}};
        if (poll(both, 2, -1) < 0 && errno != EINTR) return;
        if (both[1].revents) return;
        const Descriptor client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client)
            answer(client.get());
        else // no descriptors, say: the client stays in line
            poll(&both[1], 1, kPauseMilliseconds);
    }
}

// One client at a time; one that sends nothing is given up.
void MetricsServer::answer(int client) {
    std::string request;
    const int64_t end = milliseconds_now() + kRequestMilliseconds;
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < kRequestBytes) {
        pollfd one{client, POLLIN, 0};
        const int64_t left = end - milliseconds_now();
        char block[2048];
        if (left <= 0 || poll(&one, 1, static_cast<int>(left)) <= 0) return;
        const ssize_t got = recv(client, block, sizeof block, 0);
        if (got <= 0) return;
        request.append(block, static_cast<size_t>(got));
    }
    const bool known = request.rfind("GET /metrics ", 0) == 0 || request.rfind("GET / ", 0) == 0;
    const std::string body = known ? text_() : "not found\n";
    const std::string reply = std::string("HTTP/1.1 ") + (known ? "200 OK" : "404 Not Found") +
                              "\r\nContent-Type: text/plain; version=0.0.4\r\nConnection: close"
                              "\r\nContent-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body;
    const timeval limit{1, 0};
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    for (size_t done = 0; done < reply.size();) {
        const ssize_t sent = send(client, reply.data() + done, reply.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) return;
        done += static_cast<size_t>(sent);
    }
    shutdown(client, SHUT_WR);
}

} // namespace halvo::relay
