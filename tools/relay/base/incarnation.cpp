#include "tools/relay/base/incarnation.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>

#include "tools/relay/base/hash.h"

namespace halvo::relay {

namespace {

template <class T>
uint64_t with(uint64_t hash, const T &value) {
    return hash_of(&value, sizeof value, hash);
}

uint64_t start_of_machine() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::getline(file, text);
    return hash_of(text.data(), text.size());
}

// The id of the shared-memory segment at an address: the kernel shows it as the file's number.
int segment_at(const void *address) {
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uint64_t begin = 0, end = 0, inode = 0;
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %*s %*s %*s %" SCNu64, &begin, &end,
                        &inode) == 3 &&
            begin <= wanted && wanted < end)
            return static_cast<int>(inode);
    }
    return -1;
}

} // namespace

uint64_t incarnation_of_channel(const halvo_channel *q, int number) {
    uint64_t hash = start_of_machine();
    struct stat space {};
    if (stat("/proc/self/ns/ipc", &space) == 0) hash = with(hash, uint64_t{space.st_ino});
    const int id = segment_at(q);
    shmid_ds info{};
    if (shmctl(id, IPC_STAT, &info) == 0) {
        hash = with(hash, int64_t{info.shm_ctime});
        hash = with(hash, int32_t{info.shm_cpid});
        hash = with(hash, uint64_t{info.shm_segsz});
    }
    hash = with(hash, int32_t{id});
    hash = with(hash, int32_t{number});
    hash = with(hash, uint32_t{q->qcnt});
    return with(hash, uint32_t{q->qbsz});
}

uint64_t incarnation_of_file(const std::string &path) {
    uint64_t hash = start_of_machine();
    struct statx info {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_BTIME, &info) != 0) return hash;
    hash = with(hash, info.stx_dev_major);
    hash = with(hash, info.stx_dev_minor);
    hash = with(hash, info.stx_ino);
    hash = with(hash, info.stx_btime.tv_sec);
    return with(hash, info.stx_btime.tv_nsec);
}

} // namespace halvo::relay
