#include "tools/frame/attachment.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>

#include "core/segment/keys.h"
#include "halvo/segment.h"
#include "tools/frame/text.h"

namespace halvo::tools {

namespace {

std::string fault_of_segment(int id, bool writing) {
    void *const address = shmat(id, nullptr, writing ? 0 : SHM_RDONLY);
    if (reinterpret_cast<intptr_t>(address) == -1) {
        if (errno != EACCES) return system_text("segment %d", id);
        return text("permission denied: segment %d may not be %s by this user", id,
                    writing ? "written" : "read");
    }
    shmdt(address);
    shmid_ds found{};
    if (shmctl(id, IPC_STAT, &found) != 0) return system_text("segment %d", id);
    if (found.shm_segsz < sizeof(halvo_segment))
        return text("segment %d has %ju bytes and is no segment of queues", id,
                    static_cast<uintmax_t>(found.shm_segsz));
    return {};
}

} // namespace

std::string attach_fault(const std::string &key_file, bool writing) {
    std::string fault;
    if (KeyPath(key_file.c_str(), kPostSuffix).text[0] == '\0') {
        fault = "the path is too long";
    } else if (const key_t key = ftok(key_file.c_str(), kSegmentProject); key == -1) {
        fault = errno == ENOENT ? "no such key file; halvo-qm create makes one and its segment"
                                : system_text("key file");
    } else if (const int id = shmget(key, 0, 0); id < 0) {
        fault = errno == ENOENT ? "no segment to attach to; halvo-qm create makes one"
                                : system_text("segment of key 0x%08x", static_cast<unsigned>(key));
    } else {
        fault = fault_of_segment(id, writing);
    }
    return fault.empty() ? fault : key_file + ": " + fault;
}

} // namespace halvo::tools
