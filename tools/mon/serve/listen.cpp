#include "tools/mon/serve/listen.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "tools/frame/program.h"

namespace halvo::mon {

using tools::kFailed;
using tools::kUsage;
using tools::ToolError;

namespace {

struct HostPort {
    std::string host; // without brackets
    std::string port; // empty when there is none
    bool valid;
};

HostPort split(const std::string &text) {
    const bool bracketed = !text.empty() && text[0] == '[';
    const size_t end = bracketed ? text.find(']') : text.find(':');
    if (bracketed && end == std::string::npos) return {"", "", false};
    const std::string host = bracketed ? text.substr(1, end - 1) : text.substr(0, end);
    if (end == std::string::npos) return {host, "", true};
    const std::string rest = text.substr(bracketed ? end + 1 : end);
    if (rest.empty()) return {host, "", true};
    return {host, rest.substr(1), rest[0] == ':' && rest.size() > 1};
}

bool is_address(int family, const std::string &host) {
    char bytes[sizeof(in6_addr)];
    return inet_pton(family, host.c_str(), bytes) == 1;
}

bool is_localhost(const std::string &host) { return strcasecmp(host.c_str(), "localhost") == 0; }

bool parse_port(const std::string &text, uint16_t &port) {
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && stopped == end;
}

bool is_loopback(const std::string &host) {
    in_addr four{};
    in6_addr six{};
    if (inet_pton(AF_INET, host.c_str(), &four) == 1) return ntohl(four.s_addr) >> 24 == 127;
    return inet_pton(AF_INET6, host.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

struct Found {
    addrinfo *list = nullptr;
    ~Found() {
        if (list) freeaddrinfo(list);
    }
};

uint16_t port_of(int socket) {
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    if (getsockname(socket, reinterpret_cast<sockaddr *>(&bound), &size) != 0) return 0;
    return ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(bound).sin6_port
                                             : reinterpret_cast<sockaddr_in &>(bound).sin_port);
}

} // namespace

ListenAddress parse_listen(const std::string &text) {
    const HostPort at = split(text);
    ListenAddress address;
    if (!at.valid || !parse_port(at.port, address.port))
        throw ToolError(kUsage, text + ": not ADDRESS:PORT, such as 127.0.0.1:9470 or [::1]:9470");
    address.host = is_localhost(at.host) ? "127.0.0.1" : at.host;
    if (!is_address(AF_INET, address.host) && !is_address(AF_INET6, address.host))
        throw ToolError(kUsage, text + ": not an address of this machine, nor localhost");
    address.loopback = is_loopback(address.host);
    return address;
}

bool is_own_host(const std::string &header) {
    const HostPort at = split(header);
    uint16_t port = 0;
    if (!at.valid || (!at.port.empty() && !parse_port(at.port, port))) return false;
    if (header[0] == '[') return is_address(AF_INET6, at.host);
    return is_localhost(at.host) || is_address(AF_INET, at.host);
}

Listener listen_at(const ListenAddress &address, unsigned backlog) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    Found found;
    const std::string port = std::to_string(address.port);
    const int failed = getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found.list);
    if (failed != 0) throw ToolError(kUsage, address.host + ": " + gai_strerror(failed));
    const addrinfo &at = *found.list;
    Descriptor socket(::socket(at.ai_family, at.ai_socktype | SOCK_CLOEXEC, at.ai_protocol));
    const int on = 1;
    if (socket) setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!socket || bind(socket.get(), at.ai_addr, at.ai_addrlen) != 0 ||
        listen(socket.get(), static_cast<int>(backlog)) != 0)
        throw ToolError(kFailed, address.host + ":" + port + ": " + std::strerror(errno));
    const bool six = at.ai_family == AF_INET6;
    const std::string host = six ? "[" + address.host + "]" : address.host;
    const std::string url = "http://" + host + ":" + std::to_string(port_of(socket.get())) + "/";
    return {std::move(socket), url};
}

} // namespace halvo::mon
