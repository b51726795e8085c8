// halvo-mon: one look at the whole segment, as plain values that stay when the segment goes. What
// lies between two looks (rates, how long something has lasted) is tools/mon/look/tracker.h's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/qm/view.h"

namespace halvo::mon {

enum class Held { no, yes, unknown }; // unknown: this user may not read the semaphores

// An end of a channel and who has it. Names are of the ring's ends alone; the ends of a file queue
// are held by nobody that the segment knows of.
struct EndSample {
    std::string name; // as the process announced itself, UTF-8; stays when it closes the end
    int32_t pid = 0;  // the holder's by the semaphore, else the last one's by the header; 0: none
    Held held = Held::unknown;
    bool alive = false; // there is a process of that id
    int32_t stamp = 0;  // time of the last operation, seconds since the epoch; 0: never
};

// What wants a look, the worst last.
enum class Trouble {
    none,
    throttled,   // reads are refused for the rate limit
    growing,     // more and more messages for a minute
    old,         // the oldest message has waited for a minute
    stalled,     // a reader is there and takes nothing, for ten seconds
    no_reader,   // messages wait and nobody holds the reader's end
    full,        // no room, and writers wait for some
    dead_holder, // a process that is gone holds an end
    damaged,     // the header cannot be followed
};
constexpr int kTroubles = 9;
// A word of at most nine letters, such as "no reader"; "ok" for none.
const char *word_of(Trouble trouble);
const char *meaning_of(Trouble trouble); // a sentence without a full stop

struct ChannelSample {
    int number = 0;
    char type = ' ';
    std::string raw_name, name; // EUC-KR as it stands there; UTF-8 without control characters
    std::string damage;         // why the channel cannot be used; then all below is 0
    uint32_t slots = 0, slot_bytes = 0;
    uint64_t put = 0, got = 0, errors = 0, file_put = 0, file_got = 0; // counts so far
    bool full = false; // the slot that is to be written next is not free
    int32_t parked = 0;
    int32_t waiting_writers = 0, waiting_readers = 0;
    int32_t rate_limit = 0; // messages per second; 0 or less: none
    bool throttled = false;
    int32_t last_in = 0, last_out = 0, last_error = 0; // seconds since the epoch; 0: never
    EndSample writer, reader, file_writer, file_reader;

    // By Tracker::judge(), from the samples before.
    double in_rate = 0, out_rate = 0; // messages per second, of the file queue for type F
    int32_t oldest = 0; // seconds that the message at the head has waited at the least
    Trouble trouble = Trouble::none;

    int64_t ring_depth() const { return static_cast<int64_t>(put - got); }
    int64_t file_depth() const { return static_cast<int64_t>(file_put - file_got); }
    int64_t depth() const { return ring_depth() + file_depth(); }
    double fill() const; // of the ring, 0 .. 1
};

struct Sample {
    double taken = 0;  // seconds of the monotonic clock
    int64_t time = 0;  // seconds since the epoch
    bool up = false;   // there is a segment
    std::string fault; // why there is none, one line
    int id = -1;       // of the segment: another one after it was made anew
    uint64_t bytes = 0;
    int32_t started = 0;                 // of the monitor, see halvo_segment.uptime
    int32_t clock = 0;                   // the cached clock
    std::vector<ChannelSample> channels; // by number

    int in_trouble() const; // channels
};

// Looks again and again at the segment of a key file, read-only. It outlives the segment: while there
// is none its samples say so, and a new one is found by itself. Reads and system calls alone, so
// that any user who may read the segment can run it. Not for two threads at once.
class Sampler {
public:
    explicit Sampler(std::string key_file) : key_file_(std::move(key_file)) {}

    Sample take();
    // The segment as the last take() found it; null when there was none. Valid until the next.
    const qm::SegmentView *view() const { return view_.get(); }

private:
    void find_segment(Sample &sample);
    void attach(int id);

    std::string key_file_;
    std::unique_ptr<qm::SegmentView> view_;
    int read_locks_ = -1, write_locks_ = -1; // semaphore sets
};

// Name field up to its end, in UTF-8 and without control characters.
std::string shown_name(const char *field, size_t size);

// What the types of a channel count; those that have counted nothing are left out.
struct TypeCount {
    int type;
    std::string name; // UTF-8, may be empty
    uint64_t count, errors;
};
std::vector<TypeCount> types_of(const qm::SegmentView &view, int number);

} // namespace halvo::mon
