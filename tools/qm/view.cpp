#include "tools/qm/view.h"

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>

#include "core/segment/ring.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

SegmentView::SegmentView(int id) : id_(id), attachment_(id, true) {
    shmid_ds state{};
    if (shmctl(id, IPC_STAT, &state) < 0) throw Error(system_text("segment %d", id));
    size_ = state.shm_segsz;
}

int SegmentView::id_of(const Keys &keys) {
    const int id = find_segment(keys.segment());
    if (id < 0) throw Error(text("key file %s: no segment stands there", keys.file().c_str()));
    return id;
}

const halvo_segment *SegmentView::header() const {
    return holds(0, sizeof(halvo_segment)) ? static_cast<const halvo_segment *>(at(0)) : nullptr;
}

const halvo_channel *SegmentView::channel(uint32_t number) const {
    if (!header() || number >= HALVO_CHANNELS_MAX) return nullptr;
    const uint32_t offset = load(header()->qoffs[number]);
    if (!holds(offset, sizeof(halvo_channel))) return nullptr;
    return static_cast<const halvo_channel *>(at(offset));
}

uint32_t SegmentView::room_behind(const halvo_channel *q) const {
    const char *end = static_cast<const char *>(at(0)) + size_;
    return static_cast<uint32_t>(std::min<uint64_t>(
        static_cast<uint64_t>(end - reinterpret_cast<const char *>(q)), UINT32_MAX));
}

void SegmentView::advise(uint32_t number, int advice) const {
    static const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    if (!channel(number)) return;
    const uint64_t from = load(header()->qoffs[number]) / page * page;
    const uint64_t length = std::min(sizeof(halvo_channel) + page, size_ - from);
    madvise(const_cast<void *>(at(from)), static_cast<size_t>(length), advice); // it may fail
}

void SegmentView::prefault(uint32_t number) const { advise(number, MADV_POPULATE_READ); }
void SegmentView::release(uint32_t number) const { advise(number, MADV_DONTNEED); }

uint32_t SegmentView::channels() const {
    return header() ? std::min<uint32_t>(load(header()->nchnnl), HALVO_CHANNELS_MAX) : 0;
}

int semaphore_value(key_t key, int number) {
    const int id = semget(key, 0, 0);
    return id < 0 ? -1 : semctl(id, number, GETVAL);
}

} // namespace halvo::qm
