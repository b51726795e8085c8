// sms_shm: attachment to the segment and to its semaphores, and the small lookups.
#include "core/attach.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "core/barrier.h"
#include "core/end.h"
#include "core/geometry.h"
#include "core/mapping.h"
#include "core/ring.h"
#include "core/signals.h"

namespace {

halvo_segment *qm = nullptr; // set by a successful attach; stays after close_shm, but for a view
void *shmblock = nullptr;    // the attach address, all bits set after a failed attach
uint64_t segment_size = 0;   // bytes, at least those of the segment header
int segment_id = -1;         // of the attached segment
uint32_t first_channels = 0; // channels at the time of the attach, at most 269
int *semPosts = nullptr;     // semaphore-set ids of those channels, -1 where there is none
int *semRqsts = nullptr;
int semReadLock = -1; // sets of one semaphore per channel
int semWriteLock = -1;
int view_id = -1; // segment that is attached to be looked at; then shmblock is null

// Error-checking, because a failed attach leaves it locked: the thread must not hang on itself.
pthread_mutex_t mtx_service = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

constexpr int kSegmentProject = 1; // ftok project ids
constexpr int kReadLockProject = 201;
constexpr int kWriteLockProject = 202;

// The key file's path with a suffix; empty when it does not fit, so that ftok finds no such file.
struct KeyPath {
    char text[2048] = {};
    KeyPath(const char *keyfile, const char *suffix) {
        if (std::strlen(keyfile) + std::strlen(suffix) < sizeof text) {
            std::strcpy(text, keyfile);
            std::strcat(text, suffix);
        }
    }
};

int set_id(const char *path, int project, int semaphores) {
    const key_t key = ftok(path, project);
    return key == -1 ? -1 : semget(key, semaphores, 0);
}

// Bytes of the segment from a channel's header on, which lies whole in it behind the segment's own;
// 0 for a header that does not.
uint64_t room_of(int channel) {
    const uint64_t offset = halvo::load(qm->qoffs[channel]);
    if (offset % alignof(halvo_channel) != 0 || offset < sizeof(halvo_segment)) return 0;
    return offset + sizeof(halvo_channel) <= segment_size ? segment_size - offset : 0;
}

// One id per channel, -1 for every channel that is not of type 'M' and where the set is missing.
int *channel_semaphores(const char *path) {
    int *ids = new (std::nothrow) int[first_channels];
    for (int channel = 0; ids && channel < static_cast<int>(first_channels); ++channel) {
        const bool waits = room_of(channel) != 0 && q_chnnl2q(channel)->qtype == 'M';
        ids[channel] = waits ? set_id(path, channel + 1, 1) : -1;
    }
    return ids;
}

// Attaches what is large enough to be a segment of queues; shmblock is all bits set otherwise.
bool attach_segment(const char *keyfile, bool usable) {
    const key_t key = usable ? ftok(keyfile, kSegmentProject) : -1;
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    void *const failed = reinterpret_cast<void *>(-1); // NOLINT(performance-no-int-to-ptr)
    shmblock = shmat(id, nullptr, 0);
    if (shmblock != failed) {
        shmid_ds found{};
        segment_size = shmctl(id, IPC_STAT, &found) == 0 ? found.shm_segsz : 0;
        segment_id = id;
        if (segment_size >= sizeof(halvo_segment)) return true;
        shmdt(std::exchange(shmblock, failed));
    }
    std::printf("shmat failed keyfile %s id %d block %d\n", keyfile, id,
                static_cast<int>(reinterpret_cast<intptr_t>(shmblock)));
    return false;
}

void find_semaphores(const char *keyfile, const KeyPath &posts, const KeyPath &requests) {
    delete[] semPosts;
    semPosts = channel_semaphores(posts.text);
    delete[] semRqsts;
    semRqsts = channel_semaphores(requests.text);
    const auto channels = static_cast<int>(first_channels);
    semReadLock = set_id(keyfile, kReadLockProject, channels);
    semWriteLock = set_id(keyfile, kWriteLockProject, channels);
}

// Gives up looking at a segment.
void drop_view() {
    if (view_id < 0) return;
    halvo::attached = nullptr;
    shmdt(std::exchange(qm, nullptr));
    view_id = -1;
}

// Looks at a segment that is large enough; errno tells why not.
bool look_at(int id) {
    void *const address = shmat(id, nullptr, SHM_RDONLY);
    if (reinterpret_cast<intptr_t>(address) == -1) return false;
    shmid_ds found{};
    if (shmctl(id, IPC_STAT, &found) != 0 || found.shm_segsz < sizeof(halvo_segment)) {
        shmdt(address);
        errno = EINVAL;
        return false;
    }
    segment_size = found.shm_segsz;
    halvo::attached = qm = static_cast<halvo_segment *>(address);
    view_id = id;
    return true;
}

int view(const char *keyfile) {
    const key_t key = ftok(keyfile, kSegmentProject);
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    const bool seen = id >= 0 && id == view_id;
    const int reason = errno;
    if (!seen) drop_view();
    errno = reason;
    if (!seen && (id < 0 || !look_at(id))) return ESMS_SHMOP;
    // The queue manager stores the number last, so that it may have been 0 before.
    first_channels = std::min<uint32_t>(halvo::load(qm->nchnnl), HALVO_CHANNELS_MAX);
    return seen ? ESMS_ALREADY : ESMS_OK;
}

int id_of(const int *ids, int channel) {
    return ids && halvo::checked_channel(channel) ? ids[channel] : -1;
}

} // namespace

namespace halvo {

halvo_segment *attached = nullptr; // as qm, but null again after close_shm

int channel_count(const halvo_segment *segment) noexcept {
    const uint32_t most = segment == qm ? first_channels : uint32_t{HALVO_CHANNELS_MAX};
    return static_cast<int>(std::min(load(segment->nchnnl), most));
}

halvo_channel *checked_channel(int channel) noexcept {
    if (!attached || channel < 0 || channel >= channel_count(attached)) return nullptr;
    const uint64_t room = room_of(channel);
    halvo_channel *q = q_chnnl2q(channel);
    return room != 0 && is_sound(q, room) ? q : nullptr;
}

halvo_segment *writable_segment() noexcept { return view_id < 0 ? attached : nullptr; }

bool in_segment(const void *address, size_t bytes) noexcept {
    const auto offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(attached);
    return attached && offset <= segment_size && bytes <= segment_size - offset;
}

int attached_id() noexcept { return segment_id; }

int post_semaphore(int channel) noexcept { return id_of(semPosts, channel); }
int request_semaphore(int channel) noexcept { return id_of(semRqsts, channel); }
int read_lock_set() noexcept { return semReadLock; }
int write_lock_set() noexcept { return semWriteLock; }

// A failed attach keeps the lock for good. Its own thread is answered at once; another one waits
// for an attach that may still be going on, but not for ever.
bool lock_service() noexcept {
    timespec limit{};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 1;
    return pthread_mutex_timedlock(&mtx_service, &limit) == 0;
}

bool unlock_service() noexcept { return pthread_mutex_unlock(&mtx_service) == 0; }

} // namespace halvo

using namespace halvo;

int init_shm(const char *keyfile) noexcept {
    if (!keyfile) return shmblock ? ESMS_OK : ESMS_NOINIT;
    const KeyPath posts(keyfile, ".post");
    const KeyPath requests(keyfile, ".req");
    if (!lock_service()) return ESMS_MTXLOCK;
    int result = ESMS_ALREADY;
    if (!shmblock) {
        drop_view();
        // Kept: a failed attach returns with the service lock taken and shmblock at the failed
        // value, so that init_shm(NULL) answers ESMS_OK although nothing is attached.
        if (!attach_segment(keyfile, posts.text[0] != '\0')) return ESMS_SHMOP;
        qm = static_cast<halvo_segment *>(shmblock);
        first_channels = std::min<uint32_t>(load(qm->nchnnl), HALVO_CHANNELS_MAX);
        find_semaphores(keyfile, posts, requests);
        attached = qm;
        learn_channels();
        join_far_barriers();
        start_signal_service();
        result = ESMS_OK;
    }
    std::puts("SHM_INIT_FINISHED.");
    return unlock_service() ? result : ESMS_MTXUNLOCK;
}

int close_shm() noexcept {
    const halvo_segment *segment = qm;
    if (!segment) return ESMS_NOINIT;
    if (!lock_service()) return ESMS_MTXLOCK;
    delete[] semPosts;
    delete[] semRqsts;
    semPosts = semRqsts = nullptr;
    attached = nullptr;
    forget_channels();
    wait_for_mapping_users();
    // Kept: qm, shmblock and the lock sets stay, so that a process attaches once for its lifetime.
    const int result = shmdt(segment) == 0 ? ESMS_OK : ESMS_SHMOP;
    if (std::exchange(view_id, -1) >= 0) qm = nullptr; // a view may come again
    return unlock_service() ? result : ESMS_MTXUNLOCK;
}

int q_attach_view(const char *keyfile) noexcept {
    if (!keyfile) return ESMS_INVAL;
    if (!lock_service()) return ESMS_MTXLOCK;
    const int result = shmblock ? ESMS_ALREADY : view(keyfile);
    const int reason = errno;
    if (!unlock_service()) return ESMS_MTXUNLOCK;
    errno = reason;
    return result;
}

halvo_segment *q_0() noexcept { return qm; }

halvo_channel *q_chnnl2q(int channel) noexcept {
    if (!qm) return nullptr;
    return reinterpret_cast<halvo_channel *>(reinterpret_cast<char *>(qm) + qm->qoffs[channel]);
}

int q_name2chnnl(const char *name) noexcept {
    if (!attached || !name) return -1;
    // A name that fills its field has no terminator: the field's length is its end.
    if (std::strlen(name) > HALVO_NAME_SIZE) return -1;
    const int channels = channel_count(attached);
    for (int channel = 0; channel < channels; ++channel) {
        const halvo_channel *q = checked_channel(channel);
        if (q && std::strncmp(q->qname, name, HALVO_NAME_SIZE) == 0) return channel;
    }
    return -1;
}

char q_statchr(const qmsg *slot) noexcept {
    switch (load_state(slot)) {
    case HALVO_SLOT_FREE:
        return '_';
    case HALVO_SLOT_READABLE:
        return 'F';
    case HALVO_SLOT_MARKED:
        return 'R';
    case HALVO_SLOT_PENDING:
        return 'W';
    default:
        return 'X';
    }
}
