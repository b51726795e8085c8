// sms_shm: the reader's and the writer's side of a channel, which mirror each other. What one
// side's code needs to know of its own and of the other side stands in one row.
#pragma once

#include <cstring>

#include "core/base/process.h"
#include "core/segment/ring.h"
#include "core/segment/semaphores.h"
#include "halvo/queue.h"

namespace halvo {

struct Side {
    halvo_i32 halvo_channel::*pid;                // process id of the end's holder
    char (halvo_channel::*name)[HALVO_NAME_SIZE]; // its name
    halvo_i32 halvo_channel::*waiting;            // its blocked threads
    halvo_i32 halvo_channel::*peer_waiting;       // the other side's
    halvo_i32 halvo_channel::*heartbeat;          // time of its last operation
    halvo_i32 halvo_channel::*peer_heartbeat;
    halvo_i32 halvo_channel::*file_heartbeat; // heartbeat of its file-queue process
    halvo_i32 halvo_channel::*file_pid;       // that process's id
    halvo_client (halvo_channel::*clients)[HALVO_CLIENTS];
    halvo_u32 halvo_channel::*position; // the slot it works on next
    halvo_u32 halvo_channel::*buffers;  // its five buffer slots
    int (*semaphore)(int) noexcept;     // what it sleeps on
    int (*wake_peer)(int) noexcept;     // wakes the other side
    int (*lock_set)() noexcept;         // the set that admits one process to the end
};

inline constexpr Side kReader{&halvo_channel::pidg,
                              &halvo_channel::gname,
                              &halvo_channel::rwait,
                              &halvo_channel::wwait,
                              &halvo_channel::rtime,
                              &halvo_channel::wtime,
                              &halvo_channel::frtime,
                              &halvo_channel::pidgf,
                              &halvo_channel::gclients,
                              &halvo_channel::rpos,
                              &halvo_channel::rbufs,
                              &post_semaphore,
                              &sem_rqst,
                              &read_lock_set};

inline constexpr Side kWriter{&halvo_channel::pidp,
                              &halvo_channel::pname,
                              &halvo_channel::wwait,
                              &halvo_channel::rwait,
                              &halvo_channel::wtime,
                              &halvo_channel::rtime,
                              &halvo_channel::fwtime,
                              &halvo_channel::pidpf,
                              &halvo_channel::pclients,
                              &halvo_channel::wpos,
                              &halvo_channel::wbufs,
                              &request_semaphore,
                              &sem_postx,
                              &write_lock_set};

// Which side a mode letter or an open handle means: 'w' the writer's, any other the reader's.
constexpr const Side &side_of(char mode) noexcept { return mode == 'w' ? kWriter : kReader; }

// Records this process as the holder of an end that it has just opened.
inline void record_owner(const Side &side, halvo_channel *q, const char *client) noexcept {
    // A name of 23 bytes or more is cut; the field's last byte is never written and stays NUL.
    std::strncpy(q->*side.name, client, HALVO_NAME_SIZE - 1);
    store(q->*side.pid, process_id());
}

// Whether this process is the recorded holder of an end.
inline bool owns(const Side &side, const halvo_channel *q) noexcept {
    return load(q->*side.pid) == process_id();
}

} // namespace halvo
