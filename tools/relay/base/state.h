// A route's state file: what must outlive the process so that no message is lost or doubled. It is
// mapped, and a batch costs a few stores; what they store survives the death of the process, not that
// of the machine, as with everything in shared memory.
//
// Out: a message's identity is a source, random and kept, and a number. The number follows from the
//   message's place: the record says which number the message at a place has, and how many places
//   the reader's end has moved since tells the number of the message that is there now. So it holds
//   whatever a death leaves of marks.
// In: what is about to be committed is listed before the commit. How far the writer's end has moved
//   since tells which of the list are in; they are entered in the windows of their sources.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "core/base/posix.h"
#include "tools/relay/base/window.h"

namespace halvo::relay {

constexpr uint32_t kMostBatch = 4096; // half a window: what comes again is within it
constexpr uint32_t kMostShards = 64;

// Where a batch begins. A channel: the slot, and the count of consumed messages there. A file queue:
// file order and offset as in its position files, and a fingerprint of the first item.
struct alignas(8) Place {
    uint64_t incarnation; // of the segment or file queue; see incarnation.h
    uint64_t counted;
    uint64_t fingerprint;
    uint32_t slot;
    int32_t pid; // that held the end
    char position[24];
    char after[24]; // position behind the batch, which its commit saves
};

// Of a route out.
struct alignas(8) Sending {
    Place place;
    uint64_t source;            // the low byte is 0: shard i is source + i
    uint64_t next[kMostShards]; // the number of each shard's next message at the place
    uint32_t count;             // messages that the next commit takes
    uint32_t listed;            // messages that were given numbers; at least count
    uint64_t check;             // over all but itself
    uint8_t shard[kMostBatch];  // of each listed message
    uint64_t sum() const;
};

// A message of another relay: where it comes from, and which one it is.
struct Identity {
    uint64_t source = 0; // 0: from a foreign sender, who does not say
    uint64_t number = 0;
};

// Of a route in.
struct alignas(8) Arriving {
    Place place;
    std::atomic<uint32_t> count; // 0: nothing is being committed
    std::atomic<int32_t> heir;   // process id of a successor, who opens the end and settles this
    Identity list[kMostBatch];
};

enum class Phase : uint32_t { stopped, connecting, running, blocked, waiting, failed };
const char *name_of(Phase phase);

// What operators see of a route; counts go on from run to run.
struct alignas(8) Figures {
    std::atomic<uint64_t> messages; // relayed
    std::atomic<uint64_t> bytes;    // of their bodies
    std::atomic<uint64_t> batches;
    std::atomic<uint64_t> repeats;      // in: known already, dropped; out: sent once more
    std::atomic<uint64_t> dead_letters; // put aside: a file queue, or the broker's queue
    std::atomic<uint64_t> returned;     // out: unroutable, each time it was tried
    std::atomic<uint64_t> refused;      // out: nacks
    std::atomic<uint64_t> connections;  // made
    std::atomic<uint64_t> losses;       // of a connection
    std::atomic<uint64_t> missing;      // in: numbers that never came
    std::atomic<int64_t> in_flight; // messages sent and not confirmed, or fetched and not written
    std::atomic<int64_t> lag;       // messages that wait before the route; -1 is unknown
    std::atomic<int64_t> last;      // time of the last message, seconds since the epoch
    std::atomic<uint32_t> phase;    // enum Phase
    std::atomic<int32_t> pid;       // of the relay
    std::atomic<uint64_t> rate;     // messages per second, thousandths, over the last second
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

struct StateContent;
struct Unmap {
    void operator()(StateContent *content) const;
};
using MappedState = std::unique_ptr<StateContent, Unmap>;

// An open state file, which nobody else has. Throws StateError.
class StateFile {
public:
    // identity: whose state it is, as text: direction and local end of the route. A new file gets
    // it; a file of another one, or a damaged one, is refused.
    StateFile(const std::string &path, const std::string &identity);

    const Sending &sending() const;
    void store(Sending &sending); // fills in the check
    Arriving &arriving();
    Windows windows();
    Figures &figures();

private:
    Descriptor file_; // has the lock
    MappedState content_;
};

// A copy of the figures of a state file, beside the relay that has it; null without such a file.
// running: whether a relay has it. Throws StateError for a damaged one.
std::unique_ptr<Figures> read_figures(const std::string &path, const std::string &identity,
                                      bool &running);

class StateError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace halvo::relay
