// halvo-mon: the segment as the library's printers show it: attached to be looked at, with their
// globals prepared.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "core/base/posix.h"
#include "tools/mon/look/image.h"

namespace halvo::mon {

struct SegmentOptions {
    std::string key_file;
    std::string options_file;  // none when empty
    std::string snapshot_file; // none when empty; made when there is none yet
    bool take = false;         // makes the snapshot anew
};

// The attachment and the globals, for the life of the process. Needs the right to read alone. Throws
// ToolError. What the library has to say on the way goes to descriptor 1.
class Monitor {
public:
    explicit Monitor(const SegmentOptions &options);
    ~Monitor();
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // Looks for the segment again, which may have been removed or made anew; then rates begin again and
    // counts are those of the new one. Returns what is wrong, or nothing when there is one.
    std::string refresh();

    // Measures rates of the prints to come over so many seconds at least, and waits for so long.
    // Returns early when the program is to end.
    void measure(double seconds);
    // Stores the time of now as the monitor's start where there is none yet and this user may.
    void note_start() const;

    // What a printer prints, in EUC-KR.
    std::string printed(const std::function<void()> &print);
    // What a printer writes into a buffer, in EUC-KR.
    std::string document(int (*write)(char, char *), char mode) const;

private:
    // Where rates were measured from, at a print.
    struct Baseline {
        double time;
        std::vector<halvo_counter> counts;
    };
    void choose_baseline();
    void begin_rates();

    SegmentOptions options_;
    std::vector<halvo_counter> baseline_; // the printers' own
    std::deque<Baseline> baselines_;      // of the last seconds, the oldest first
    double rate_seconds_ = 0;
    std::vector<Image> snapshot_; // one or none
    Origin origin_;
    Descriptor printed_to_; // a file in memory
};

} // namespace halvo::mon
