// halvo-qm check: the semaphore sets, their sizes and values.
#include <sys/sem.h>

#include "core/segment/ring.h"
#include "tools/frame/text.h"
#include "tools/qm/check/check.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

// Size and values of one set. More than 1 lets two processes hold one end (an end was closed more
// often than opened), or one wake-up count as two.
Faults faults_of_set(key_t key, uint32_t size, const std::string &what) {
    const int id = semget(key, 0, 0);
    if (id < 0) return {system_text("%s", what.c_str())};
    semid_ds state{};
    if (semctl(id, 0, IPC_STAT, &state) < 0) return {system_text("%s", what.c_str())};
    if (state.sem_nsems != size)
        return {text("%s: the set has %ju semaphores instead of %u", what.c_str(),
                     static_cast<uintmax_t>(state.sem_nsems), size)};
    Faults faults;
    for (uint32_t i = 0; i < size; ++i) {
        const int value = semctl(id, static_cast<int>(i), GETVAL);
        if (value > 1) faults.push_back(text("%s: semaphore %u is %d", what.c_str(), i, value));
    }
    return faults;
}

template <typename KeyOf>
void add(Faults &faults, KeyOf key_of, uint32_t size, const std::string &what) {
    try {
        for (std::string &fault : faults_of_set(key_of(), size, what))
            faults.push_back(std::move(fault));
    } catch (const Error &error) { // no key, because its file is missing
        faults.push_back(what + ": " + error.what());
    }
}

} // namespace

Faults faults_of_semaphores(const Keys &keys, const SegmentView &view) {
    Faults faults;
    const uint32_t channels = view.channels();
    add(
        faults, [&] { return keys.read_locks(); }, channels, "read locks");
    add(
        faults, [&] { return keys.write_locks(); }, channels, "write locks");
    for (uint32_t i = 0; i < channels; ++i) {
        const halvo_channel *q = view.channel(i);
        if (!q || q->qtype != 'M') continue;
        const int number = static_cast<int>(i);
        add(
            faults, [&] { return keys.post(number); }, 1, text("channel %u: post semaphore", i));
        add(
            faults, [&] { return keys.request(number); }, 1,
            text("channel %u: request semaphore", i));
    }
    return faults;
}

} // namespace halvo::qm
