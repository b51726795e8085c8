// halvo-mon: the answer of a Nagios plugin.
#pragma once

#include <string>
#include <vector>

#include "tools/mon/segment.h"

namespace halvo::mon {

enum class Health { ok = 0, warning = 1, critical = 2, unknown = 3 }; // exit statuses

// More than a limit is bad; a negative limit is none.
struct Limits {
    int64_t warning = -1;
    int64_t critical = -1;
};

struct CheckOptions {
    Limits backlog;      // messages
    Limits age;          // seconds since an end's last operation
    bool readers = true; // ends whose age counts
    bool writers = true;
    std::vector<std::string> channels; // names in UTF-8 or EUC-KR; all when empty
};

struct Answer {
    Health health;
    std::string line; // "HALVO OK - text | performance data", one line, in UTF-8
};

// Looks at every channel, or at those named; a name that is no channel is unknown. The ends of a
// channel of type M are those of its ring, of others those of its file queue. An end that was never
// used is older than any limit.
Answer check(const Image &image, const CheckOptions &options, int32_t now);
Answer unknown(const std::string &why);

} // namespace halvo::mon
