#include "fq/files/durable.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/base/posix.h"
#include "halvo/fq.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

int mode_of_environment() {
    const char *mode = std::getenv("HALVO_FQ_DURABILITY");
    if (!mode || std::strcmp(mode, "none") == 0 || !*mode) return FQ_DURABILITY_NONE;
    if (std::strcmp(mode, "commit") != 0) // better too safe than not at all
        std::printf("HALVO_FQ_DURABILITY=%s is neither none nor commit; commit it is\n", mode);
    return FQ_DURABILITY_COMMIT;
}

std::atomic<int> &chosen_mode() {
    static std::atomic<int> mode{mode_of_environment()};
    return mode;
}

bool told(bool done) {
    if (!done) std::printf("fq_sync error (%s)\n", std::strerror(errno));
    return done;
}

} // namespace

bool halvo::fq::is_durable() noexcept {
    return chosen_mode().load(std::memory_order_relaxed) == FQ_DURABILITY_COMMIT;
}

bool halvo::fq::sync_file(int fd) noexcept { return !is_durable() || told(fdatasync(fd) == 0); }

bool halvo::fq::sync_names(int directory, const char *path) noexcept {
    if (!is_durable()) return true;
    char name[FQ_NAME_SIZE];
    fq_dirof(path, name);
    const Descriptor file = open_file_at(directory, *name ? name : "/", O_RDONLY | O_DIRECTORY);
    return told(file && fsync(file.get()) == 0);
}

int fq_set_durability(int mode) noexcept {
    const CancellationOff whole_call;
    if (mode != FQ_DURABILITY_NONE && mode != FQ_DURABILITY_COMMIT) return ESMS_INVAL;
    chosen_mode() = mode;
    return 0;
}
