#include "tests/fuzz/attachment.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "halvo/queue.h"
#include "tests/fuzz/attach_again.h"

#if defined(__SANITIZE_ADDRESS__)
#define HALVO_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HALVO_POISONS 1
#endif
#endif
#ifdef HALVO_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace halvo::fuzz {

namespace {

struct Shape {
    const char *name;
    char type;
    uint32_t slots, slot_size;
};
constexpr Shape kShapes[kChannels] = {
    {"MT01", 'M', 4, 512}, {"FQ01", 'F', 3, 20}, {"XCN1", 'M', 1, 64}};

constexpr uint32_t size_of(const Shape &shape) {
    return static_cast<uint32_t>(sizeof(halvo_channel)) +
           (shape.slots + 2 * HALVO_BUFFERS) * shape.slot_size;
}

// The ring comes first in every other channel: the last write buffer of the last one is then not
// where the segment ends.
void fill_channel(halvo_channel &q, const Shape &shape, bool ring_first) {
    const uint32_t ring = shape.slots * shape.slot_size;
    const uint32_t buffers = HALVO_BUFFERS * shape.slot_size;
    uint32_t at = sizeof(halvo_channel);
    q.qcnt = shape.slots;
    q.qbsz = shape.slot_size;
    q.qtype = shape.type;
    std::strcpy(q.qname, shape.name);
    q.qstart = ring_first ? at : at + 2 * buffers;
    if (ring_first) at += ring;
    q.rbufs = at;
    q.wbufs = at + buffers;
    q.rpos = q.wpos = q.qstart;
    q.qend = q.qstart + ring;
}

std::vector<char> make_sound_segment() {
    std::vector<char> bytes(sound_size());
    auto &segment = *reinterpret_cast<halvo_segment *>(bytes.data());
    segment.nchnnl = kChannels;
    segment.now = 1700000000;
    std::strcpy(segment.qtcnt[1].tname, "submit");
    segment.qtcnt[1].tstart = 1;
    uint32_t at = sizeof(halvo_segment);
    for (uint32_t i = 0; i < kChannels; at += size_of(kShapes[i]), ++i) {
        segment.qoffs[i] = at;
        fill_channel(*reinterpret_cast<halvo_channel *>(bytes.data() + at), kShapes[i], i % 2 == 0);
    }
    return bytes;
}

// Memory that ends before a page which nobody may touch.
struct Region {
    char *begin, *end;
    Region() {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t room = (sound_size() + page - 1) / page * page;
        void *memory =
            mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) std::abort();
        begin = static_cast<char *>(memory);
        end = begin + room;
        if (mprotect(end, page, PROT_NONE) != 0) std::abort();
    }
    // Under the address sanitizer what lies before the last `size` bytes is out of bounds too.
    void bound([[maybe_unused]] size_t size) const {
#ifdef HALVO_POISONS
        const auto outside = static_cast<size_t>(end - begin) - size;
        __asan_unpoison_memory_region(begin + outside, size);
        __asan_poison_memory_region(begin, outside);
#endif
    }
};

const Region &region() {
    static const Region memory;
    return memory;
}

uint32_t present = 0; // bytes of the segment that is there

} // namespace

uint32_t sound_size() {
    uint32_t size = sizeof(halvo_segment);
    for (const Shape &shape : kShapes) size += size_of(shape);
    return size;
}

uint32_t placed_size() { return present; }
char *placed() { return region().end - present; }

void place_segment(uint32_t size) {
    static const std::vector<char> sound = make_sound_segment();
    forget_attachment();
    present = size;
    region().bound(size);
    std::memcpy(placed(), sound.data(), size);
}

void attach() { init_shm("fuzzed"); }

} // namespace halvo::fuzz

// ---- In place of the system's -------------------------------------------------------------------

extern "C" {

key_t ftok(const char *path, int project) {
    const size_t hash = std::hash<std::string_view>{}(path);
    return static_cast<key_t>((hash * 256 + static_cast<size_t>(project)) & 0x7fffffff);
}

int shmget(key_t, size_t, int) { return 1; }

void *shmat(int, const void *, int) {
    return halvo::fuzz::placed_size() > 0 ? halvo::fuzz::placed() : reinterpret_cast<void *>(-1);
}

int shmctl(int, int, shmid_ds *found) {
    found->shm_segsz = halvo::fuzz::placed_size();
    return 0;
}

int shmdt(const void *) { return 0; }
int semget(key_t, int, int) { return 1; }
int semctl(int, int, int, ...) { return 0; }

int semtimedop(int, sembuf *operations, size_t, const timespec *) {
    if (operations->sem_flg & SEM_UNDO) return 0; // an end that nobody holds
    errno = EINTR;
    return -1;
}
int semop(int id, sembuf *operations, size_t count) {
    return semtimedop(id, operations, count, nullptr);
}

int usleep(useconds_t) { return 0; }
}
