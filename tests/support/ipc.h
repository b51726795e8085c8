// The System V objects of a segment, looked up by its files as any process does.
#pragma once

#include <sys/sem.h>
#include <sys/shm.h>

#include <string>

#include "tools/qm/segment.h"

namespace halvo::test {

constexpr int kReadLocks = 201, kWriteLocks = 202; // numbers of the lock sets

inline int segment_under(const std::string &key_file) {
    return shmget(ftok(key_file.c_str(), 1), 0, 0);
}
inline int set_under(const std::string &file, int number) {
    return semget(ftok(file.c_str(), number), 0, 0);
}
inline int value_of(int set, int semaphore = 0) { return semctl(set, semaphore, GETVAL); }

inline unsigned long size_of_set(int set) { // 0: there is none
    semid_ds state{};
    return semctl(set, 0, IPC_STAT, &state) < 0 ? 0 : state.sem_nsems;
}

// Makes the segment of a key file, anew where there is one, with channels of these names.
inline void remake(const std::string &key_file, std::initializer_list<const char *> names) {
    qm::SegmentPlan plan;
    for (const char *name : names) plan.channels.push_back({name, 'M', 4, 64, 0});
    qm::create(plan, key_file, true);
}

} // namespace halvo::test
