// One signal arrives at a wait, at each 20 microseconds of it and before each machine instruction of
// its beginning. Its handler is installed without restart; the wait is to end by it, not by its
// limit.
#include <sys/syscall.h>
#include <sys/user.h>

#include <functional>

#include "tests/proof/form.h"
#include "tests/proof/single_step.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

constexpr int kLimit = 20000;            // milliseconds, of the waits
constexpr int kOutlived = 400000;        // microseconds: two passes of the monitor, and some more
constexpr unsigned kSteppedOutlived = 3; // seconds: where many processes share one processor
constexpr int64_t kAtOnce = 50000;       // microseconds: without the monitor

long switches() { return usage_of(RUSAGE_THREAD).ru_nivcsw; } // made by the system

volatile long switches_at_signal = -1; // the first one; -1: none has come

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = [](int) {
        if (switches_at_signal < 0) switches_at_signal = switches();
    };
    sigaction(SIGALRM, &action, nullptr);
}

struct Call {
    const char *name;
    std::function<int()> run;
    int interrupted; // what it answers then
};

struct Sweep {
    int waits = 0, outlived = 0, by_monitor = 0, unclear = 0;
};

// A timer that signals the calling thread.
timer_t own_timer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGALRM;
    event._sigev_un._tid = gettid();
    timer_t timer{};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0)
        throw std::runtime_error("timer_create");
    return timer;
}

// One signal comes so long after the begin of the call, another one when that was outlived.
void arrive(const Call &call, int microseconds, const Stalls &stalls, Sweep &sweep) {
    constexpr int kBegin = 20; // of the call, until it waits
    static const timer_t timer = own_timer();
    const int after = kBegin + microseconds;
    const itimerspec times = {{0, 2 * kOutlived * 1000L}, {0, after * 1000L}}, none{};
    switches_at_signal = -1;
    const long switches_before = switches();
    const int64_t sent = microseconds_now() + after;
    timer_settime(timer, 0, &times, nullptr);
    EXPECT_EQ(call.run(), call.interrupted) << call.name;
    const int64_t end = microseconds_now();
    timer_settime(timer, 0, &none, nullptr);
    ++sweep.waits;
    const int64_t took = end - sent > kAtOnce ? stalls.without_stalls(sent, end) : 0;
    // Taken from its processor just before the call, the thread may have had its signal before the
    // wait began.
    if (took >= kOutlived)
        ++(switches_at_signal == switches_before ? sweep.outlived : sweep.unclear);
    else
        sweep.by_monitor += took > kAtOnce;
}

// An empty channel, a full one, and one without semaphores.
class SignalArrival : public testing::Test {
protected:
    Segment segment = SegmentBuilder()
                          .channel("EMPTY", 'M', 4, 64)
                          .channel("FULL", 'M', 4, 64)
                          .channel("FILE", 'F', 4, 64)
                          .build();
    FrxChannel reader{}, writer{}, poller{}, second{};
    const std::vector<Call> calls = {
        {"frx_read", [this] { return read(reader); }, ESMS_JAVAINTR},
        {"frx_write on a full ring",
         [this] { return halvo::test::frx_write(&writer, "x", kLimit); }, ESMS_JAVAINTR},
        {"frx_openChannel", [this] { return frx_openChannel(&second, "second", 0, 'r', kLimit); },
         ESMS_ACCESS},
        {"frx_read without a semaphore", [this] { return read(poller); }, ESMS_JAVAINTR},
    };

    void SetUp() override {
        catch_signals();
        open_all();
    }
    void open_all() {
        ASSERT_EQ(initialise(segment), ESMS_OK);
        ASSERT_EQ(frx_openChannel(&reader, "reads", 0, 'r', 1000), ESMS_OK);
        ASSERT_EQ(frx_openChannel(&writer, "writes", 1, 'w', 1000), ESMS_OK);
        ASSERT_EQ(frx_openChannel(&poller, "polls", 2, 'r', 1000), ESMS_OK);
        while (halvo::test::frx_write(&writer, "x", -1) == ESMS_OK) continue;
    }
    int read(FrxChannel &end) {
        char slot[64];
        return frx_read(&end, slot, kLimit);
    }
};

void tell(const std::string &what, const Sweep &sweep) {
    figure("a signal at " + what + ": waits", "-", sweep.waits);
    figure("a signal at " + what + ": waits that outlived it", "0", sweep.outlived);
    figure("a signal at " + what + ": waits that the monitor had to end", "-", sweep.by_monitor);
}

// A process that waits again and again, and stops in front of each wait.
class SteppedWaits {
public:
    template <class Prepare>
    SteppedWaits(Prepare prepare, const Call &call)
        : process_(stage_, prepare, [this, &call] { return wait_for_ever(call); }) {
        find_places();
    }

    // Goes to the instruction that is so many behind the wait's begin, and lets the signal arrive.
    // False when the thread would sleep by then.
    bool arrival_behind(int instructions, Sweep &sweep) {
        while (instruction() != begin_) process_.step();
        for (int i = 0; i < instructions && instruction() != sleep_; ++i) process_.step();
        const bool sleeps = instruction() == sleep_;
        const int before = stage_.returned;
        const int64_t sent = microseconds_now();
        sweep.outlived += arrivals_to_the_next_wait() > 1;
        sweep.by_monitor += microseconds_now() - sent > kAtOnce;
        ++sweep.waits;
        EXPECT_EQ(stage_.returned, before + 1);
        EXPECT_EQ(stage_.result, 0) << "the call was not interrupted";
        return !sleeps;
    }

private:
    int wait_for_ever(const Call &call) {
        for (;;) {
            const int result = call.run();
            stage_.result = result == call.interrupted ? 0 : 1;
            stage_.returned = stage_.returned + 1;
            __asm__ volatile("int3");
        }
    }

    // Where the library has written its marks below the stack, and where it sleeps.
    void find_places() {
        while (!writes_a_mark()) process_.step();
        while (writes_a_mark()) process_.step();
        begin_ = instruction();
        while (!writes_a_mark()) process_.step(); // again right before the sleep
        while (!is_sleep()) process_.step();
        sleep_ = instruction();
        arrivals_to_the_next_wait();
    }

    user_regs_struct registers() const {
        user_regs_struct values{};
        ptrace(PTRACE_GETREGS, process_.pid(), nullptr, &values);
        return values;
    }
    long word_at(unsigned long address) const {
        return ptrace(PTRACE_PEEKDATA, process_.pid(), address, nullptr);
    }
#ifdef __x86_64__
    static constexpr long kIp = offsetof(user_regs_struct, rip);
    bool is_sleep() const { return is_call(0x050F, registers().rax, SYS_semop); }
#else
    static constexpr long kIp = offsetof(user_regs_struct, eip);
    bool is_sleep() const {
        return is_call(0xFF65, static_cast<unsigned long>(registers().eax), SYS_ipc);
    }
#endif
    unsigned long instruction() const {
        return static_cast<unsigned long>(ptrace(PTRACE_PEEKUSER, process_.pid(), kIp, nullptr));
    }
    bool is_call(long opcode, unsigned long number, unsigned long wanted) const {
        return number == wanted && (word_at(instruction()) & 0xFFFF) == opcode;
    }
    // mov $mark, displacement(stack)
    bool writes_a_mark() const {
        const auto at = instruction();
        const long start = word_at(at) & 0xFFFFFF;
        const unsigned long behind = start == 0x2444C7 ? 4 : start == 0x2484C7 ? 7 : 0;
        return behind && static_cast<uint32_t>(word_at(at + behind)) == 0x5A17C0DE;
    }

    // Lets the signal arrive, again as long as the wait outlives it. How often.
    int arrivals_to_the_next_wait() const {
        int arrivals = 1;
        for (int signal = SIGALRM, status = 0;; signal = WSTOPSIG(status)) {
            ptrace(PTRACE_CONT, process_.pid(), nullptr, signal);
            alarm(kSteppedOutlived);
            while (waitpid(process_.pid(), &status, __WALL) < 0) { // by the alarm
                if (++arrivals > 100) throw std::runtime_error("a wait that no signal ends");
                ::kill(process_.pid(), SIGALRM);
                alarm(kSteppedOutlived);
            }
            alarm(0);
            if (!WIFSTOPPED(status)) throw std::runtime_error("the stepped process has ended");
            if (WSTOPSIG(status) == SIGTRAP) return arrivals;
        }
    }

    Stage &stage_ = shared_object<Stage>();
    SingleStep process_;
    unsigned long begin_ = 0, sleep_ = 0;
};

// The same calls, in processes that are gone through instruction by instruction.
class SignalAtAnInstruction : public SignalArrival {
protected:
    void SetUp() override {
        catch_signals();
        stay_on_this_processor();
    }
};

} // namespace

TEST_F(SignalArrival, at_each_20_microseconds) {
    const Stalls stalls;
    for (const Call &call : calls) {
        Sweep sweep, first;
        arrive(call, 3000, stalls, first); // the first call goes through the dynamic linker
        for (int round = 0; round < length(2, 200); ++round) {
            q_set_spin(round % 2 *
                       500); // in half of them the thread looks for a while, and then sleeps
            for (int at = 20; at <= 1000; at += 20) arrive(call, at, stalls, sweep);
        }
        // The monitor comes by every 100 ms.
        for (int at = 99900; at <= 100500; at += length(60, 20)) arrive(call, at, stalls, sweep);
        tell(std::string("each 20 microseconds of ") + call.name, sweep);
        EXPECT_LT(sweep.unclear, sweep.waits / 10 + 2) << "the machine is too busy";
    }
}

TEST_F(SignalAtAnInstruction, from_the_begin_of_the_wait_to_its_sleep) {
    q_set_spin(0);
    for (size_t i = 0; i < calls.size() - 1; ++i) { // the last one polls, and never ends to begin
        Sweep sweep;
        SteppedWaits process([this] { open_all(); }, calls[i]);
        const int stride = length(61, 1);
        for (int n = 0; process.arrival_behind(n, sweep); n += stride) continue;
        tell(std::string("each instruction before the sleep of ") + calls[i].name, sweep);
    }
}
