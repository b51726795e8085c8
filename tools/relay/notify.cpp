#include "tools/relay/notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "core/base/posix.h"

namespace halvo::relay {

void notify(const std::string &state) {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    const size_t length = path ? std::strlen(path) : 0;
    if (length < 2 || length >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') address.sun_path[0] = '\0'; // an abstract name
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket) return;
    sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr *>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

} // namespace halvo::relay
