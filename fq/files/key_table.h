// sms_fq: the process's table of mutexes, one for each lock file in use.
#pragma once

#include "fq/files/files.h"

namespace halvo::fq {

struct OpenSide;

struct OpenKey {
    int key;     // of the lock file, as ftok(name, 1); 0: the entry is free
    FileId file; // none: any lock file of that key
    pthread_mutex_t mutex;
    OpenSide *side;  // of the transaction that holds the mutex; null when it is not known
    pthread_t owner; // the thread that began it
};

// The key of a lock file.
int key_of(const FileId &file) noexcept;
// The entry of a lock file. Files whose keys are the same have entries of their own, so that a thread
// may hold two of them; they share one only when the table is full. Null after a line.
OpenKey *entry_for(const FileId &file) noexcept;
// Whether an entry is still that of a lock file: fq_mtx_init may have emptied the table.
bool is_entry_for(const OpenKey *entry, const FileId &file) noexcept;
// The entry whose mutex this is; null for any other.
OpenKey *entry_with(const pthread_mutex_t *mutex) noexcept;
// Whether a transaction that the calling thread began is open on a side.
bool thread_holds_a_side() noexcept;

void init_once() noexcept;

} // namespace halvo::fq
