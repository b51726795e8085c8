#include "fq/files/key_table.h"

#include <cstdio>

using namespace halvo;
using namespace halvo::fq;

namespace {

OpenKey openkeys[256]; // entries are never released
pthread_mutex_t mtxkeys = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t once_control = PTHREAD_ONCE_INIT;

void before_fork() { pthread_mutex_lock(&mtxkeys); }
void after_fork() { pthread_mutex_unlock(&mtxkeys); }

// No thread of the parent's runs in the child, so nobody there would give these mutexes back. The
// parent's file locks keep the child out. The sides of its transactions are left to whoever ends the
// copied records.
void after_fork_in_child() {
    for (OpenKey &entry : openkeys) {
        entry.side = nullptr;
        if (entry.key != 0) pthread_mutex_init(&entry.mutex, nullptr);
    }
    after_fork();
}

void init() {
    fq_mtx_init();
    pthread_atfork(before_fork, after_fork, after_fork_in_child);
}

template <class Is>
OpenKey *first_entry(Is is) {
    for (OpenKey &entry : openkeys)
        if (is(entry)) return &entry;
    return nullptr;
}

OpenKey *made_entry(int key, const FileId &file) {
    OpenKey *entry = first_entry([](const OpenKey &each) { return each.key == 0; });
    if (!entry) return nullptr;
    entry->key = key;
    entry->file = file;
    if (pthread_mutex_init(&entry->mutex, nullptr) == 0) return entry;
    std::printf("fq_key2mtx.pthread_mutex_init error for key %d.\n", key);
    entry->key = 0;
    return nullptr;
}

// Calls find() with the table to itself; a line when it finds nothing. No entry can hold key 0, which
// marks the free ones.
template <class Find>
OpenKey *found_entry(int key, Find find) {
    init_once();
    MutexLock table;
    if (table.lock(mtxkeys) != 0) return nullptr;
    OpenKey *entry = key == 0 ? nullptr : find();
    if (table.unlock() != 0) return nullptr;
    if (!entry) std::printf("fq_key2mtx(end) error for key %d.\n", key);
    return entry;
}

OpenKey *entry_of_key(int key) {
    return first_entry([key](const OpenKey &entry) { return entry.key == key; });
}

} // namespace

void halvo::fq::init_once() noexcept { pthread_once(&once_control, init); }

int halvo::fq::key_of(const FileId &file) noexcept {
    return static_cast<int>(1u << 24 | (file.device & 0xff) << 16 | (file.inode & 0xffff));
}

bool halvo::fq::is_entry_for(const OpenKey *entry, const FileId &file) noexcept {
    return entry && entry->key == key_of(file) && entry->file == file;
}

OpenKey *halvo::fq::entry_for(const FileId &file) noexcept {
    const int key = key_of(file);
    return found_entry(key, [&] {
        OpenKey *entry =
            first_entry([&](const OpenKey &each) { return is_entry_for(&each, file); });
        if (entry) return entry;
        entry = first_entry(
            [key](const OpenKey &each) { return each.key == key && each.file == FileId{}; });
        if (entry) entry->file = file; // so far somebody has only asked for the key's mutex
        if (!entry) entry = made_entry(key, file);
        return entry ? entry : entry_of_key(key);
    });
}

OpenKey *halvo::fq::entry_with(const pthread_mutex_t *mutex) noexcept {
    const auto from = reinterpret_cast<uintptr_t>(&openkeys[0].mutex);
    const size_t at = reinterpret_cast<uintptr_t>(mutex) - from;
    const bool in_table = at % sizeof(OpenKey) == 0 && at < sizeof openkeys;
    return in_table ? &openkeys[at / sizeof(OpenKey)] : nullptr;
}

bool halvo::fq::thread_holds_a_side() noexcept {
    return first_entry([](const OpenKey &entry) {
               return entry.side && pthread_equal(entry.owner, pthread_self());
           }) != nullptr;
}

void fq_mtx_init() noexcept {
    for (OpenKey &entry : openkeys) entry = OpenKey{};
}

pthread_mutex_t *fq_key2mtx(int key) noexcept {
    const CancellationOff whole_call;
    OpenKey *entry = found_entry(key, [key] {
        OpenKey *known = entry_of_key(key);
        return known ? known : made_entry(key, {});
    });
    return entry ? &entry->mutex : nullptr;
}
