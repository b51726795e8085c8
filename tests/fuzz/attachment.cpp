#include "tests/fuzz/attachment.h"

#include <sanitizer/asan_interface.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "halvo/queue.h"
#include "tools/qm/segment.h"

namespace halvo::fuzz {

namespace {

// Memory that ends before a page which nobody may touch.
struct Region {
    static constexpr size_t kRoom = 1u << 20;
    char *begin, *end;
    Region() {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void *memory =
            mmap(nullptr, kRoom + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) std::abort();
        begin = static_cast<char *>(memory);
        end = begin + kRoom;
        if (mprotect(end, page, PROT_NONE) != 0) std::abort();
    }
    // Under the address sanitizer what lies before the last `size` bytes is out of bounds too.
    void bound(size_t size) const {
        ASAN_POISON_MEMORY_REGION(begin, kRoom - size);
        ASAN_UNPOISON_MEMORY_REGION(end - size, size);
    }
};

const Region &region() {
    static const Region memory;
    return memory;
}

uint32_t present = 0; // bytes of the segment that is there

void let_there_be(uint32_t size) {
    present = size;
    region().bound(size);
}

// As the queue manager makes it.
const std::vector<char> &sound() {
    static const std::vector<char> bytes = [] {
        const qm::SegmentPlan plan{
            {{"MT01", 'M', 4, 512}, {"FQ01", 'F', 3, 20}, {"XCN1", 'M', 1, 64}}, {{1, "submit"}}};
        let_there_be(0);
        qm::create(plan, scratch().path("key"), false);
        reinterpret_cast<halvo_segment *>(placed())->now = 1700000000;
        return std::vector<char>(placed(), placed() + present);
    }();
    return bytes;
}

} // namespace

const test::TestDirectory &scratch() {
    static const test::TestDirectory directory = [] {
        if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
        return test::TestDirectory();
    }();
    return directory;
}

uint32_t sound_size() { return static_cast<uint32_t>(sound().size()); }
uint32_t sound_channel(uint32_t n) {
    return reinterpret_cast<const halvo_segment *>(sound().data())->qoffs[n];
}

uint32_t placed_size() { return present; }
char *placed() { return region().end - present; }

void place_segment(uint32_t size) {
    const std::vector<char> &bytes = sound();
    forget_attachment();
    let_there_be(size);
    std::memcpy(placed(), bytes.data(), size);
}

void attach() { init_shm("fuzzed"); }

} // namespace halvo::fuzz

// ---- In place of the system's -------------------------------------------------------------------

extern "C" {

key_t ftok(const char *, int) { return 1; }

int shmget(key_t, size_t size, int flags) {
    if (flags & IPC_CREAT) halvo::fuzz::let_there_be(static_cast<uint32_t>(size));
    errno = ENOENT;
    return halvo::fuzz::placed_size() > 0 ? 1 : -1;
}

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
