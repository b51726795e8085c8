// This process's id, which a process remembers for itself alone.
#include "core/base/process.h"

#include <sys/mman.h>
#include <unistd.h>

namespace halvo {

OwnPage own_page;

int32_t learn_process_id() noexcept {
    auto id = static_cast<int32_t>(getpid());
    if (madvise(&own_page, sizeof own_page, MADV_WIPEONFORK) != 0) return id;
    // A signal's handler may fork anywhere: the child comes back with its parent's id in hand.
    for (int32_t stored = 0; stored != id; id = static_cast<int32_t>(getpid()))
        own_page.process_id = stored = id;
    return id;
}

} // namespace halvo
