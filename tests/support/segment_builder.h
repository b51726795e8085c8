// A real segment with its semaphores, in a directory of its own, for one test.
//
//     Segment s = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
//     s.attach();
//     halvo_channel *q = s.open("MT01", 'w');
//
// Everything is removed when the Segment goes, and also when the test dies on the way: a janitor
// process of its own waits for the end of the test and of every process that the test forked.
// Build before the test starts threads.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "core/posix.h"
#include "halvo/queue.h"
#include "tools/qm/segment.h"

namespace halvo::test {

class Segment {
public:
    Segment(Segment &&) = default; // leaves an object that removes nothing
    Segment &operator=(Segment &&) = delete;
    ~Segment(); // in a forked process it leaves everything in place

    // Path of the key file; its directory is empty but for the key files and free for the test.
    const std::string &key_file() const { return key_file_; }
    std::string path(const std::string &name) const; // a path in that directory

    // init_shm() and q_settime(); fails the test's process when the attach does.
    void attach() const;
    int number(const std::string &name) const; // channel number by name; throws when unknown
    halvo_channel *channel(const std::string &name) const; // its header; attached processes only
    halvo_channel *open(const std::string &name, char mode) const; // q_open

private:
    friend class SegmentBuilder;
    Segment(std::string directory, Descriptor alive, std::vector<std::string> names);
    std::string directory_;
    std::string key_file_;
    Descriptor alive_;               // the janitor waits until nobody has it
    pid_t owner_;                    // process that removes everything
    std::vector<std::string> names_; // of the channels, by number
};

class SegmentBuilder {
public:
    SegmentBuilder &channel(std::string name, char type, uint32_t slots, uint32_t slot_size,
                            int32_t rate_limit = 0);
    SegmentBuilder &type_name(int type, std::string name);
    Segment build() const; // throws qm::Error when it cannot

private:
    qm::SegmentPlan plan_;
};

} // namespace halvo::test
