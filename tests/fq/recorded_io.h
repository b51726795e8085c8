// What a run does to the disk, written down, and the disks that a loss of power may leave of it.
// This test program defines the system calls itself, so that the library's come here first. Nothing
// is ever really forced to the disk.
#pragma once

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace halvo::test {

// One call that changes files, or forces changes to the disk.
struct DiskCall {
    enum Kind { create, remove, write, cut, sync, sync_names } kind;
    size_t file = 0;    // number of the file, in the order of creation
    int64_t offset = 0; // of a write; size of a cut
    std::string bytes;
};

class Recorder {
public:
    // Records what happens to files whose names begin with `path`, from now on.
    explicit Recorder(const std::string &path);
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;
    ~Recorder();

    // Called in the middle of each call that forces something, not within itself.
    std::function<void()> meanwhile;

    void stop();
    size_t calls() const { return calls_.size(); }
    // What stands in the files before; on the disk for certain.
    void add_base(const std::string &suffix, int64_t hole, const std::string &bytes);

    // Leaves under `path` a disk as it may be when the power fails after so many calls: what was
    // forced, and of the rest nothing, all, or anything, the last with a torn write among it.
    enum Rest { nothing, all, anything };
    void build(const std::string &path, size_t calls, Rest rest, std::minstd_rand &random) const;

    // For the system calls.
    void add(DiskCall call);
    void created(const std::string &name, int fd);
    void removed(const std::string &name);
    bool knows(int fd, size_t &file) const;

private:
    struct File {
        std::string suffix;
        uint64_t inode;
    };
    bool reaches_disk(Rest rest, std::minstd_rand &random) const;
    std::string path_;
    std::vector<File> files_;
    std::vector<DiskCall> calls_;
    size_t base_calls_ = 0;
    bool nested_ = false;
    friend int recorded_sync(int fd);
};

} // namespace halvo::test
