// The System V objects under the keys of a segment.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/qm/keys.h"

namespace halvo::qm {

// Steps that take back what was made, in reverse order, unless all of it is kept.
class Undo {
public:
    Undo() = default;
    Undo(const Undo &) = delete;
    Undo &operator=(const Undo &) = delete;
    ~Undo();
    void add(std::function<void()> step) { steps_.push_back(std::move(step)); }
    void keep() { steps_.clear(); }

private:
    std::vector<std::function<void()>> steps_;
};

// Owner of an attachment.
class Attachment {
public:
    // read_only: neither the flags nor the segment's permissions let it be written. Throws Error.
    Attachment(int id, bool read_only);
    Attachment(const Attachment &) = delete;
    Attachment &operator=(const Attachment &) = delete;
    ~Attachment();
    void *address() const { return address_; }

private:
    void *address_;
};

// Id of the segment, or -1 when there is none. Throws Error when that cannot be found out.
int find_segment(key_t key);
// The same of a semaphore set.
int find_semaphores(key_t key);

// Removes the segment and its semaphore sets, whatever the segment holds: the lock sets tell how
// many channels there are, and without them everything that the keys can name is removed. `channels`
// is the least number of channels whose semaphores go. Returns whether there was anything; the
// first line of what could not be removed is stored in failure.
bool remove_objects(const Keys &keys, std::string &failure, size_t channels = 0);

} // namespace halvo::qm
