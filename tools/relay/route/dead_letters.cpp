#include "tools/relay/route/dead_letters.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "halvo/fq.h"

namespace halvo::relay {

void put_aside(const RouteConfig &route, const Message &message, const Identity &identity,
               const std::string &reason) {
    char head[256], day[32];
    const time_t now = std::time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%SZ", &parts);
    std::snprintf(
        head, sizeof head,
        "route=%s source=%016" PRIx64 " number=%" PRIu64 " type=%d length=%u time=%s reason=",
        route.name.c_str(), identity.source, identity.number, message.type, message.length, day);
    std::string item = head + reason + "\n";
    item.append(message.data, message.length);
    const int result = fq_enqueue_away(-1, -1, 1, route.dead_letters.c_str(), item.data(),
                                       static_cast<unsigned>(item.size()));
    if (result != 0)
        throw EndError("file queue " + route.dead_letters + ": a dead letter could not be written");
}

} // namespace halvo::relay
