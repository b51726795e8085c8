// halvo-mon: the answer of a Nagios plugin.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

enum class Health { ok = 0, warning = 1, critical = 2, unknown = 3 }; // exit statuses

// More than a limit is bad; a negative limit is none.
struct Limits {
    int64_t warning = -1;
    int64_t critical = -1;
};

// What is asked of a channel.
struct Demands {
    Limits backlog;                                // messages
    Limits age;                                    // seconds since an end's last operation
    bool writer_held = false, reader_held = false; // a living process holds the end
    bool ignored = false;                          // nothing is
};

struct CheckOptions {
    Demands demands;                    // of channels without their own
    std::map<std::string, Demands> own; // by name in UTF-8
    bool readers = true;                // ends whose age counts
    bool writers = true;
    std::vector<std::string> channels; // names in UTF-8 or EUC-KR; all when empty
};

struct Answer {
    Health health;
    std::string line; // "HALVO OK - text | performance data", one line in UTF-8, below 4096 bytes
};

// Looks at every channel, or at those named; a name that is no channel is unknown, and so is a sample
// without a segment. The ends of a channel of type M are those of its ring, of others those of its
// file queue; there a living process counts as holding it. An end that was never used is older than
// any limit. The performance data are of each channel where that fits, else of all together.
Answer check(const Sample &sample, const CheckOptions &options);
Answer unknown(const std::string &why);

// Reads demands from a TOML file:
//
//     [default]              # of all channels; what it does not say, the command line says
//     warning = 100          # messages that wait
//     critical = 1000
//     warning_age = 60       # seconds without a sign of an end
//     critical_age = 300
//     held = "reader"        # or "writer", "both", "none"
//     [channel.MT01]         # of one; what it does not say, [default] says
//     critical = 50
//     ignore = false
//
// Throws ToolError "FILE:LINE: reason".
void load_limits(const std::string &path, CheckOptions &options);
// The word of `held` or --held. False for any other word.
bool set_held(const std::string &word, Demands &demands);

} // namespace halvo::mon
