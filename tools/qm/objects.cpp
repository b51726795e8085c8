#include "tools/qm/objects.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Removes one object. Another remover may have been faster: that counts as nothing found.
class Remover {
public:
    explicit Remover(std::string &failure) : failure_(failure) {}

    void segment(key_t key) {
        const int id = find_segment(key);
        if (id < 0) return;
        note(shmctl(id, IPC_RMID, nullptr), "segment", id);
    }

    void semaphores(key_t key) {
        const int id = find_semaphores(key);
        if (id < 0) return;
        note(semctl(id, 0, IPC_RMID), "semaphore set", id);
    }

    bool found() const { return found_; }

private:
    void note(int result, const char *what, int id) {
        if (result < 0 && (errno == EINVAL || errno == EIDRM)) return;
        found_ = true;
        if (result < 0 && failure_.empty()) failure_ = system_text("cannot remove %s %d", what, id);
    }

    std::string &failure_;
    bool found_ = false;
};

// Number of semaphores in a set, or 0 when there is no such.
size_t size_of_set(key_t key) {
    semid_ds state{};
    const int id = find_semaphores(key);
    return id >= 0 && semctl(id, 0, IPC_STAT, &state) == 0 ? state.sem_nsems : 0;
}

// How many channels a segment may have left semaphores of. Not the segment is asked: it may be
// damaged.
size_t channels_of(const Keys &keys) {
    const size_t locks = exists(keys.file()) ? std::max(size_of_set(keys.read_locks()),
                                                        size_of_set(keys.write_locks()))
                                             : 0;
    return locks > 0 ? locks : kKeyPeriod;
}

} // namespace

Undo::~Undo() {
    for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) (*step)();
}

Attachment::Attachment(int id, bool read_only)
    : address_(shmat(id, nullptr, read_only ? SHM_RDONLY : 0)) {
    // The system call tells a failure by an address of all ones.
    if (reinterpret_cast<intptr_t>(address_) == -1)
        throw Error(system_text("cannot attach segment %d", id));
}

Attachment::~Attachment() { shmdt(address_); }

int find_segment(key_t key) {
    const int id = shmget(key, 0, 0);
    if (id < 0 && errno != ENOENT)
        throw Error(system_text("segment of key 0x%08x", static_cast<unsigned>(key)));
    return id;
}

int find_semaphores(key_t key) {
    const int id = semget(key, 0, 0);
    if (id < 0 && errno != ENOENT)
        throw Error(system_text("semaphores of key 0x%08x", static_cast<unsigned>(key)));
    return id;
}

bool remove_objects(const Keys &keys, std::string &failure, size_t channels) {
    Remover remover(failure);
    const int count =
        static_cast<int>(std::min<size_t>(std::max(channels_of(keys), channels), kKeyPeriod));
    if (exists(keys.file())) {
        remover.segment(keys.segment());
        remover.semaphores(keys.read_locks());
        remover.semaphores(keys.write_locks());
    }
    if (exists(keys.post_file()))
        for (int i = 0; i < count; ++i) remover.semaphores(keys.post(i));
    if (exists(keys.request_file()))
        for (int i = 0; i < count; ++i) remover.semaphores(keys.request(i));
    return remover.found();
}

} // namespace halvo::qm
