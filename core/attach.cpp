// sms_shm: attaching to the segment and to its semaphores, and detaching.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include "core/base/output.h"
#include "core/ring/end.h"
#include "core/segment/keys.h"
#include "core/segment/mapping.h"
#include "core/segment/segment.h"
#include "core/segment/semaphores.h"
#include "core/segment/service_lock.h"
#include "core/wait/barrier.h"
#include "core/wait/signals.h"

using namespace halvo;

namespace {

void *shmblock = nullptr; // the attach address, all bits set after a failed attach
int view_id = -1;         // segment that is attached to be looked at; then shmblock is null

// Attaches what is large enough to be a segment of queues; shmblock is all bits set otherwise.
bool attach_segment(const char *keyfile, bool usable) {
    const key_t key = usable ? ftok(keyfile, kSegmentProject) : -1;
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    void *const failed = reinterpret_cast<void *>(-1); // NOLINT(performance-no-int-to-ptr)
    shmblock = shmat(id, nullptr, 0);
    if (shmblock != failed) {
        shmid_ds found{};
        segment_size = shmctl(id, IPC_STAT, &found) == 0 ? static_cast<size_t>(found.shm_segsz) : 0;
        attached_id = id;
        if (segment_size >= sizeof(halvo_segment)) return true;
        shmdt(std::exchange(shmblock, failed));
    }
    print("shmat failed keyfile %s id %d block %d\n", keyfile, id,
          static_cast<int>(reinterpret_cast<intptr_t>(shmblock)));
    return false;
}

// The queue manager stores the number last, so that it may be 0 at first.
void count_channels() {
    first_channels =
        static_cast<int>(std::min<uint32_t>(load(segment_ever->nchnnl), HALVO_CHANNELS_MAX));
}

// Attaches, and finds the semaphores that belong to it: between the two looks the segment may have been
// removed, and what is found be that of the next one. Its ends would be held, and an old ring written.
bool join_segment(const char *keyfile, bool usable) {
    for (;;) {
        if (!attach_segment(keyfile, usable)) return false;
        segment_ever = static_cast<halvo_segment *>(shmblock);
        count_channels();
        find_semaphores(keyfile);
        if (shmget(ftok(keyfile, kSegmentProject), 0, 0) == attached_id) return true;
        segment_ever = nullptr;
        shmdt(shmblock);
    }
}

// Gives up looking at a segment.
void drop_view() {
    if (view_id < 0) return;
    std::atomic_ref(attached).store(nullptr);
    wait_for_mapping_users();
    is_view = false;
    shmdt(std::exchange(segment_ever, nullptr));
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
    segment_size = static_cast<size_t>(found.shm_segsz);
    segment_ever = static_cast<halvo_segment *>(address);
    is_view = true; // before another thread's q_settime() can find it, which would store
    std::atomic_ref(attached).store(segment_ever);
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
    count_channels();
    return seen ? ESMS_ALREADY : ESMS_OK;
}

} // namespace

int init_shm(const char *keyfile) noexcept {
    if (!keyfile) return shmblock ? ESMS_OK : ESMS_NOINIT;
    const bool usable = KeyPath(keyfile, kPostSuffix).text[0] != '\0'; // the longest of the paths
    if (!lock_service()) return ESMS_MTXLOCK;
    int result = ESMS_ALREADY;
    if (!shmblock) {
        drop_view();
        // Kept: a failed attach returns with the service lock taken and shmblock at the failed
        // value, so that init_shm(NULL) answers ESMS_OK although nothing is attached.
        if (!join_segment(keyfile, usable)) {
            keep_service();
            return ESMS_SHMOP;
        }
        attached = segment_ever;
        expect_channels();
        join_barriers();
        start_signal_service();
        result = ESMS_OK;
    }
    print("SHM_INIT_FINISHED.\n");
    return unlock_service() ? result : ESMS_MTXUNLOCK;
}

int close_shm() noexcept {
    const halvo_segment *segment = segment_ever;
    if (!segment) return ESMS_NOINIT;
    if (!lock_service()) return ESMS_MTXLOCK;
    forget_channel_semaphores();
    std::atomic_ref(attached).store(nullptr); // beside those that MappingUse is for
    forget_channels();
    wait_for_mapping_users();
    // Kept: segment_ever, shmblock and the lock sets stay: a process attaches once for its lifetime.
    const int result = shmdt(segment) == 0 ? ESMS_OK : ESMS_SHMOP;
    if (std::exchange(view_id, -1) >= 0) segment_ever = nullptr; // a view may come again
    is_view = false;
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
