// Waking a process that is asleep. Each side idles awake long enough before it wakes the other that
// the other has surely gone to sleep, and says in the message (or beside the semaphore) when it did
// so. The two ways are added up, so that a difference between the processors' clocks cancels out.
#include <linux/futex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "bench/links/halvo.h"
#include "bench/links/links.h"
#include "bench/links/runs.h"
#include "bench/shared_memory.h"

namespace halvo::bench {

namespace {

constexpr double kIdleSeconds = 150e-6; // several times the longest spin of the library

double ticks_per_second() {
    static const double rate = [] {
        const double start = seconds_now();
        const uint64_t first = ticks_now();
        while (seconds_now() < start + 0.01) pause_poll();
        return static_cast<double>(ticks_now() - first) / (seconds_now() - start);
    }();
    return rate;
}

void idle_awake() {
    const uint64_t end = ticks_now() + static_cast<uint64_t>(kIdleSeconds * ticks_per_second());
    while (ticks_now() < end) pause_poll();
}

// A way: wake(ticks) wakes the other side, wait() sleeps and answers the ticks it was given.
template <class Link>
Measured measure(Link &link, uint32_t count) {
    const auto ask = [&](Shared &shared) {
        link.enter();
        typename Link::Way out(link, 0, true), in(link, 1, false);
        std::vector<uint32_t> times(count);
        shared.meet(2);
        const double start = seconds_now();
        for (uint32_t i = 0; i < count; ++i) {
            idle_awake();
            out.wake(ticks_now());
            const uint64_t there = in.wait(); // the answer's stamp, less what the way there took
            times[i] = static_cast<uint32_t>(ticks_now() - there);
        }
        shared.result.seconds = seconds_now() - start;
        put_percentiles(shared.result, times, ticks_per_second() * 1e-9);
    };
    const auto answer = [&](Shared &shared) {
        link.enter();
        typename Link::Way in(link, 0, false), out(link, 1, true);
        shared.meet(2);
        for (uint32_t i = 0; i < count; ++i) {
            const uint64_t sent = in.wait();
            const uint64_t took = ticks_now() - sent;
            idle_awake();
            out.wake(ticks_now() - took);
        }
    };
    return run({ask, answer});
}

struct FrxWakeLink : FrxLink {
    using FrxLink::FrxLink;
    // Only the end that is asked for is opened; the other side's process has the other one.
    struct Way {
        Way(FrxWakeLink &link, int lane, bool waker) {
            if (waker)
                writer = std::make_unique<Writer>(link, lane);
            else
                reader = std::make_unique<Reader>(link, lane);
            length = link.shape().body;
        }
        void wake(uint64_t ticks) {
            std::memcpy(writer->body(), &ticks, sizeof ticks);
            writer->send(length);
        }
        uint64_t wait() {
            uint64_t ticks = 0;
            std::memcpy(&ticks, reader->receive(), sizeof ticks);
            return ticks;
        }
        std::unique_ptr<Writer> writer;
        std::unique_ptr<Reader> reader;
        uint32_t length = 0;
    };
};

// A word per way carries the ticks; the wake itself has no data.
struct Flags {
    std::atomic<int> woken;
    uint64_t ticks;
};

struct WordLink {
    WordLink() : memory(2 * sizeof(Flags)) {}
    void enter() {}
    Flags &flags(int lane) { return reinterpret_cast<Flags *>(memory.data())[lane]; }
    SharedMemory memory;
};

struct SemopLink : WordLink {
    SemopLink() : id(semget(IPC_PRIVATE, 2, IPC_CREAT | 0600)) {
        if (id < 0) throw Failure("semget");
    }
    SemopLink(const SemopLink &) = delete;
    SemopLink &operator=(const SemopLink &) = delete;
    ~SemopLink() { semctl(id, 0, IPC_RMID); }
    struct Way {
        Way(SemopLink &link, int lane, bool)
            : id(link.id), number(static_cast<unsigned short>(lane)), flags(link.flags(lane)) {}
        void step(short by) {
            sembuf operation{number, by, 0};
            if (semop(id, &operation, 1) < 0) throw Failure("semop");
        }
        void wake(uint64_t ticks) {
            flags.ticks = ticks;
            step(1);
        }
        uint64_t wait() {
            step(-1);
            return flags.ticks;
        }
        int id;
        unsigned short number;
        Flags &flags;
    };
    int id;
};

struct FutexLink : WordLink {
    struct Way {
        Way(FutexLink &link, int lane, bool) : flags(link.flags(lane)) {}
        void wake(uint64_t ticks) {
            flags.ticks = ticks;
            flags.woken.store(1);
            syscall(SYS_futex, &flags.woken, FUTEX_WAKE, 1, nullptr, nullptr, 0);
        }
        uint64_t wait() {
            while (flags.woken.exchange(0) == 0)
                syscall(SYS_futex, &flags.woken, FUTEX_WAIT, 0, nullptr, nullptr, 0);
            return flags.ticks;
        }
        Flags &flags;
    };
};

} // namespace

Measured frx_wake(const Shape &shape, uint32_t count) {
    FrxWakeLink link(shape, 2);
    return measure(link, count);
}
Measured semop_wake(const Shape &, uint32_t count) {
    SemopLink link;
    return measure(link, count);
}
Measured futex_wake(const Shape &, uint32_t count) {
    FutexLink link;
    return measure(link, count);
}

} // namespace halvo::bench
