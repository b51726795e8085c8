#include "tests/support/segment_builder.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/directory.h"

namespace halvo::test {

namespace {

// Keys hold 16 bits of an inode number, so once in a while two tests that run at the same time
// meet under one key. The next directory has other inodes.
constexpr int kTries = 5;

// Files that create() finds it leaves in place when it fails: their inodes stay taken.
void make_key_files(const std::string &key_file) {
    for (const char *suffix : {"", ".post", ".req"})
        open_file((key_file + suffix).c_str(), O_WRONLY | O_CREAT, 0644);
}

} // namespace

Segment::Segment(std::string directory, Descriptor alive, std::vector<std::string> names)
    : directory_(std::move(directory)), key_file_(directory_ + "/key"), alive_(std::move(alive)),
      owner_(getpid()), names_(std::move(names)) {}

Segment::~Segment() {
    if (!alive_ || getpid() != owner_) return;
    try {
        qm::remove(key_file_);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "segment of a test: %s\n", error.what());
    }
    remove_tree(directory_);
}

std::string Segment::path(const std::string &name) const { return directory_ + "/" + name; }

void Segment::attach() const {
    const int result = init_shm(key_file_.c_str());
    if (result == ESMS_OK) {
        q_settime();
        return;
    }
    std::fprintf(stderr, "cannot attach by %s: %d\n", key_file_.c_str(), result);
    std::fflush(nullptr);
    _exit(EXIT_FAILURE);
}

int Segment::number(const std::string &name) const {
    const auto found = std::find(names_.begin(), names_.end(), name);
    if (found == names_.end()) throw std::out_of_range("no channel " + name);
    return static_cast<int>(found - names_.begin());
}

halvo_channel *Segment::channel(const std::string &name) const { return q_chnnl2q(number(name)); }

halvo_channel *Segment::open(const std::string &name, char mode) const {
    return q_open(number(name), mode);
}

SegmentBuilder &SegmentBuilder::channel(std::string name, char type, uint32_t slots,
                                        uint32_t slot_size, int32_t rate_limit) {
    plan_.channels.push_back({std::move(name), type, slots, slot_size, rate_limit});
    return *this;
}

SegmentBuilder &SegmentBuilder::type_name(int type, std::string name) {
    plan_.type_names[type] = std::move(name);
    return *this;
}

Segment SegmentBuilder::build() const {
    std::vector<std::string> names;
    for (const qm::ChannelPlan &channel : plan_.channels) names.push_back(channel.name);
    std::vector<Descriptor> spared; // their directories stay, so that no inode comes again
    for (int tries = 1;; ++tries) {
        const std::string directory = make_test_directory();
        const std::string key_file = directory + "/key";
        Descriptor alive = start_janitor(directory, key_file);
        make_key_files(key_file);
        try {
            qm::create(plan_, key_file, false);
            return Segment(directory, std::move(alive), names);
        } catch (const qm::Error &error) {
            // What stands under the key, if that is the reason, is another's.
            spare_segment(alive);
            spared.push_back(std::move(alive));
            if (tries == kTries || !dynamic_cast<const qm::Standing *>(&error)) throw;
        }
    }
}

} // namespace halvo::test
