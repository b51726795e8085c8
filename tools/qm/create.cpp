// halvo-qm create: the segment, its semaphores and key files, all or none of them.
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "core/base/posix.h"
#include "core/segment/keys.h"
#include "core/segment/ring.h"
#include "halvo/segment.h"
#include "tools/frame/text.h"
#include "tools/qm/objects.h"
#include "tools/qm/plan.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

void make_file(const std::string &path, Undo &undo) {
    if (!open_file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644)) {
        if (errno == EEXIST) return;
        throw Error(system_text("cannot make key file %s", path.c_str()));
    }
    undo.add([path] { unlink(path.c_str()); });
}

// Another one may have made its segment under a key file that both found missing.
void remove_unused(const std::string &key_file) {
    const key_t key = ftok(key_file.c_str(), kSegmentProject);
    if (key != -1 && shmget(key, 0, 0) < 0) unlink(key_file.c_str());
}

// A segment is refused with what the operator needs to find out whose it is.
std::string description_of_segment(int id) {
    shmid_ds state{};
    if (shmctl(id, IPC_STAT, &state) < 0) return text("segment %d", id);
    return text("segment %d (made by process %d; %ju attached)", id,
                static_cast<int>(state.shm_cpid), static_cast<uintmax_t>(state.shm_nattch));
}

void refuse_segment(const Keys &keys) {
    const int id = find_segment(keys.segment());
    if (id >= 0)
        throw Standing(text("key file %s: %s stands there", keys.file().c_str(),
                            description_of_segment(id).c_str()));
}

// The group is set afterwards, since the kernel takes the process's own.
void give(ipc_perm &owner, const Access &access) {
    if (access.group != kOwnGroup) owner.gid = access.group;
    owner.mode = static_cast<decltype(owner.mode)>(access.mode);
}

// Makes a set of semaphores that all have the same value.
void make_set(key_t key, int count, unsigned short value, const Access &access, Undo &undo) {
    const int id = semget(key, count, IPC_CREAT | IPC_EXCL | static_cast<int>(access.mode));
    if (id < 0 && errno == EEXIST)
        throw Standing(text("a semaphore set stands under key 0x%08x, without its segment",
                            static_cast<unsigned>(key)));
    if (id < 0) throw Error(system_text("cannot make %d semaphores", count));
    undo.add([id] { semctl(id, 0, IPC_RMID); });
    std::vector<unsigned short> values(static_cast<size_t>(count), value);
    if (semctl(id, 0, SETALL, values.data()) < 0)
        throw Error(system_text("cannot set %d semaphores", count));
    if (access.group == kOwnGroup) return;
    semid_ds state{};
    if (semctl(id, 0, IPC_STAT, &state) == 0) {
        give(state.sem_perm, access);
        if (semctl(id, 0, IPC_SET, &state) == 0) return;
    }
    throw Error(system_text("cannot set the group of semaphores %d", id));
}

void make_semaphores(const Keys &keys, const SegmentPlan &plan, const Access &access, Undo &undo) {
    const int count = static_cast<int>(plan.channels.size());
    make_set(keys.read_locks(), count, 1, access, undo);
    make_set(keys.write_locks(), count, 1, access, undo);
    std::set<int> made;
    for (int i = 0; i < count; ++i) {
        if (plan.channels[static_cast<size_t>(i)].type != 'M') continue;
        if (!made.insert(i % kKeyPeriod).second) continue;
        make_set(keys.post(i), 1, 0, access, undo);
        make_set(keys.request(i), 1, 0, access, undo);
    }
}

// `field` is zeroed and longer than any name of a sound plan.
void put_name(char (&field)[HALVO_NAME_SIZE], const std::string &name) {
    std::memcpy(field, name.data(), std::min(name.size(), sizeof field - 1));
}

void fill_channel(halvo_channel &q, const ChannelPlan &plan) {
    const ChannelLayout at = layout_of(plan);
    q.qcnt = plan.slots;
    q.qbsz = plan.slot_size;
    put_name(q.qname, plan.name);
    q.qtype = plan.type;
    q.rbufs = static_cast<uint32_t>(at.rbufs);
    q.wbufs = static_cast<uint32_t>(at.wbufs);
    q.qstart = static_cast<uint32_t>(at.qstart);
    q.qend = static_cast<uint32_t>(at.qend);
    q.rpos = q.qstart;
    q.wpos = q.qstart;
    q.tpsmx = plan.rate_limit;
}

// The segment comes zeroed from the kernel, so all slots are free. The number of channels is stored
// last: until then the segment has none to open.
void fill_segment(void *address, const SegmentPlan &plan) {
    auto *segment = static_cast<halvo_segment *>(address);
    segment->now = static_cast<int32_t>(std::time(nullptr));
    for (const auto &[type, name] : plan.type_names) {
        halvo_counter &record = segment->qtcnt[type];
        record.tstart = 1; // in use
        put_name(record.tname, name);
    }
    uint64_t offset = first_channel_offset();
    for (size_t i = 0; i < plan.channels.size(); ++i) {
        segment->qoffs[i] = static_cast<uint32_t>(offset);
        void *header = static_cast<char *>(address) + offset;
        fill_channel(*static_cast<halvo_channel *>(header), plan.channels[i]);
        offset += layout_of(plan.channels[i]).size;
    }
    store(segment->nchnnl, static_cast<uint32_t>(plan.channels.size()));
}

uint64_t size_of(const SegmentPlan &plan) {
    uint64_t size = first_channel_offset();
    for (const ChannelPlan &channel : plan.channels) size += layout_of(channel).size;
    return size;
}

// Others may attach only when the segment is filled.
void make_segment(const Keys &keys, const SegmentPlan &plan, const Access &access, Undo &undo) {
    const uint64_t size = size_of(plan);
    const int id = shmget(keys.segment(), static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | 0600);
    if (id < 0 && errno == EEXIST) refuse_segment(keys);
    if (id < 0)
        throw Error(
            system_text("cannot make a segment of %ju bytes", static_cast<uintmax_t>(size)));
    undo.add([id] { shmctl(id, IPC_RMID, nullptr); });

    const Attachment attachment(id, false);
    fill_segment(attachment.address(), plan);
    shmid_ds state{};
    if (shmctl(id, IPC_STAT, &state) < 0) throw Error(system_text("segment %d", id));
    give(state.shm_perm, access);
    if (shmctl(id, IPC_SET, &state) < 0)
        throw Error(system_text("cannot set the permissions of segment %d", id));
}

} // namespace

void create(const SegmentPlan &plan, const std::string &key_file, bool replace,
            const Access &access) {
    if (std::string fault = fault_of(plan); !fault.empty()) throw Error(fault);
    const mode_t mode = access.mode;
    if ((mode & 0600) != 0600 || (mode & ~static_cast<mode_t>(0666)) != 0)
        throw Error(text("permissions %04o: they must be within 0666 and have 0600",
                         static_cast<unsigned>(mode)));
    const Keys keys(key_file);
    const bool was_there = ::access(keys.file().c_str(), F_OK) == 0;
    const KeyLock turn(keys, true);
    Undo undo;
    if (!was_there) undo.add([&keys] { remove_unused(keys.file()); });
    make_file(keys.post_file(), undo);
    make_file(keys.request_file(), undo);
    if (replace) {
        std::string failure;
        remove_objects(keys, failure, plan.channels.size());
        if (!failure.empty()) throw Error(failure);
    } else {
        refuse_segment(keys);
    }
    make_semaphores(keys, plan, access, undo);
    make_segment(keys, plan, access, undo);
    undo.keep();
}

} // namespace halvo::qm
