// The system calls of the file queue in a test's hands: each is counted, may fail, kill the process
// or be written down with what it does to the disk. A test program with these defines the calls
// itself, so that the library's come here first. Nothing is ever really forced to the disk.
#pragma once

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/peer.h"

namespace halvo::test {

// Runs f and counts its calls. The n-th (counted from 1; 0: none) fails with an error number, and
// `lasting` all that follow. Nothing is done then, but for a close, which closes. In place of the
// number: kShort, reads and writes move half of their bytes, everything else succeeds; kKill, the
// process dies before the call.
constexpr int kShort = 0, kKill = -1;
int run_with_fault(int n, int error, bool lasting, const std::function<void()> &f);

// Runs f; right before its n-th call somebody else does meanwhile(), whose calls do not count. The
// number of calls.
int run_with_meanwhile(int n, std::function<void()> meanwhile, const std::function<void()> &f);

// Lets all lock files of one device have the same key.
void let_keys_collide(bool collide);

// Runs f in a process that dies before its n-th call. False when f got through to its end.
bool dies_before_call(int n, auto f) {
    const int status = Peer([&] { run_with_fault(n, kKill, false, f); }).wait();
    EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << status;
    return status != 0;
}

// One call that changed files, or forced changes to the disk.
struct DiskCall {
    enum Kind { create, remove, write, cut, sync, sync_names } kind;
    size_t file = 0;    // number of the file, in the order of creation
    int64_t offset = 0; // of a write; size of a cut
    std::string bytes;
};

// What a run does to the disk, and the disks that a loss of power may leave of it.
class Recorder {
public:
    // Records what happens to files whose names begin with `path`, from now on.
    explicit Recorder(const std::string &path);
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;
    ~Recorder() { stop(); }

    // Called in the middle of each call that forces something, not within itself.
    std::function<void()> meanwhile;

    void stop();
    size_t calls() const { return calls_.size(); }
    // What stands in a file before, behind a hole; on the disk for certain.
    void add_base(const std::string &suffix, int64_t hole, const std::string &bytes);

    // Leaves under `path` a disk as it may be when the power fails after so many calls: what was
    // forced, and of the rest nothing, all, or anything, the last with a torn write among it.
    enum Rest { nothing, all, anything };
    void build(const std::string &path, size_t calls, Rest rest, std::minstd_rand &random) const;

    // For the system calls, behind them.
    void changed(DiskCall::Kind kind, int fd, int64_t offset, const std::string &bytes = {});
    void created(const std::string &name, int fd);
    void removed(const std::string &name);
    void syncs(int fd);

private:
    struct File {
        std::string suffix;
        uint64_t inode;
    };
    const std::string path_;
    std::vector<File> files_;
    std::vector<DiskCall> calls_;
    size_t base_calls_ = 0;
    bool nested_ = false;
};

} // namespace halvo::test
