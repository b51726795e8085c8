// Making, listing, checking and removing a segment: what the queue manager does, as functions, so
// that the program, the tests and the demonstration build theirs with the same code. Nothing here
// uses the library itself: a queue manager must be able to say what is wrong with a segment that
// the library cannot use.
//
// A segment and its semaphores are found by one key file. Two more files beside it, with ".post"
// and ".req" behind its name, carry the keys of the semaphores that wake readers and writers.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvo::qm {

struct ChannelPlan {
    std::string name;       // 1 .. 23 bytes, none of them a control character
    char type = 'M';        // a letter; only 'M' gets semaphores
    uint32_t slots = 0;     // 1 or more
    uint32_t slot_size = 0; // bytes, 16-byte header included; more than 16
    int32_t rate_limit = 0; // messages per second; 0 is none
};

struct SegmentPlan {
    std::vector<ChannelPlan> channels;     // 1 .. HALVO_CHANNELS_MAX, no two of the same name
    std::map<int, std::string> type_names; // type 1 .. 4095 to a name as of a channel
};

// What went wrong, as one line for the operator.
class Error : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// create() found something under the key and was not told to replace it.
class Standing : public Error {
    using Error::Error;
};

// A fault of a plan: which item ("channel 3 slots", "type 17", or "channel 3" for what concerns
// the channel as a whole) and what is wrong with it. No fault when reason is empty.
struct Fault {
    std::string item;
    std::string reason;
};

// The names that Fault uses, for callers that keep a place for each item.
std::string item_of_channel(size_t number, const char *field = nullptr);
std::string item_of_type(int type);

// The first fault of a plan.
Fault first_fault(const SegmentPlan &plan);
// The same as one line, or an empty string.
std::string fault_of(const SegmentPlan &plan);

// Who may use what create() makes.
constexpr auto kOwnGroup = static_cast<gid_t>(-1); // the process's
struct Access {
    mode_t mode = 0660; // permission bits, at least 0600
    gid_t group = kOwnGroup;
};

// Makes the key files that are missing, the post and request semaphores of 'M' channels, the two
// lock sets and, last and complete, the segment. On failure throws Error and leaves nothing behind that
// it made. What stands under the keys is refused with Standing, unless replace is set: then it is removed
// first (processes that are attached to it keep their old segment until they detach).
void create(const SegmentPlan &plan, const std::string &key_file, bool replace,
            const Access &access = {});

// Removes segment, semaphores and those key files that are empty. Returns false when there was
// nothing to remove. Throws Error when something could not be removed, after it has tried the
// rest.
bool remove(const std::string &key_file);

// Faults found in the segment of a key file, each as one line ("channel 3 MT01: ..."); empty when
// it is sound. Reads only, also beside running writers and readers: what a message on its way
// looks like is no fault. Throws Error when the segment cannot be attached.
std::vector<std::string> check(const std::string &key_file);

// What an operator wants to know of a channel. Names have their control characters replaced.
struct ChannelInfo {
    std::string name;
    char type;
    uint32_t slots;
    uint32_t slot_size;
    int64_t waiting; // messages in the ring and in the channel's file queue, by the counters
    int32_t writer;  // process id of the last writer, 0 when there was none
    int32_t reader;
    std::string writer_name;
    std::string reader_name;
    bool writing; // the end is held now
    bool reading;
    int32_t rate_limit;
};

// The channels of a segment in their order. Throws Error when the segment cannot be attached or
// its table of channels cannot be followed (check() then says more).
std::vector<ChannelInfo> list(const std::string &key_file);

} // namespace halvo::qm
