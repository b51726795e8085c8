// One signal arrives at a wait, at each 20 microseconds of it and before each machine instruction of
// its beginning. Its handler is installed without restart; the wait is to end by it, not by its
// limit.
#include <sys/syscall.h>
#include <sys/user.h>

#include <functional>
#include <thread>

#include "tests/proof/form.h"
#include "tests/proof/single_step.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

constexpr int kLimit = 20000;         // milliseconds, of the waits
constexpr int64_t kOutlived = 400000; // microseconds: two passes of the monitor, and some more
constexpr int64_t kSteppedOutlived = 3000000; // where many processes share one processor
constexpr int64_t kAtOnce = 50000;            // microseconds: without the monitor

long switches() { return usage_of(RUSAGE_THREAD).ru_nivcsw; } // made by the system

std::atomic<long> switches_at_signal{0};
std::atomic<int> signals_handled{0};

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = [](int) {
        switches_at_signal = switches();
        ++signals_handled;
    };
    sigaction(SIGUSR1, &action, nullptr);
}

struct Call {
    const char *name;
    std::function<int()> run;
    int interrupted; // what it answers then
};

struct Sweep {
    int waits = 0, outlived = 0, by_monitor = 0, unclear = 0;
};

// The thread that waits, and the one that signals it so long after it has begun to call.
class Arrival {
public:
    explicit Arrival(const Call &call) : call_(call), thread_([this] { wait_often(); }) {}
    ~Arrival() {
        stop_ = true;
        thread_.join();
    }

    void at(int microseconds, const Stalls &stalls, Sweep &sweep) {
        while (state_ != State::resting) usleep(10);
        const int handled = signals_handled;
        state_ = State::asked;
        while (state_ == State::asked) continue;
        const int64_t start = microseconds_now();
        while (microseconds_now() < start + microseconds) continue;
        const int64_t sent = microseconds_now();
        pthread_kill(thread_.native_handle(), SIGUSR1);
        while (state_ == State::calling && stalls_aside(sent, stalls) < kOutlived) usleep(200);
        ++sweep.waits;
        const bool outlived = state_ == State::calling;
        const int64_t took = outlived ? 0 : ended_ - sent;
        // Taken from its processor just before the call, the thread may have had its signal before
        // the wait began.
        const bool clear = signals_handled > handled && switches_at_signal == switches_before_;
        if (outlived) ++(clear ? sweep.outlived : sweep.unclear);
        if (took > kAtOnce && stalls.without_stalls(sent, sent + took) > kAtOnce)
            ++sweep.by_monitor;
        while (state_ == State::calling) {
            pthread_kill(thread_.native_handle(), SIGUSR1);
            usleep(1000);
        }
    }

private:
    enum class State { resting, asked, calling };

    static int64_t stalls_aside(int64_t sent, const Stalls &stalls) {
        const int64_t took = microseconds_now() - sent;
        return took < kOutlived ? took : stalls.without_stalls(sent, sent + took);
    }

    void wait_often() {
        while (!stop_) {
            if (state_ != State::asked) {
                usleep(10);
                continue;
            }
            switches_before_ = switches();
            state_ = State::calling;
            const int result = call_.run();
            ended_ = microseconds_now();
            state_ = State::resting;
            EXPECT_EQ(result, call_.interrupted) << call_.name;
        }
    }

    const Call &call_;
    std::atomic<bool> stop_{false};
    std::atomic<State> state_{State::resting};
    std::atomic<long> switches_before_{0};
    std::atomic<int64_t> ended_{0};
    std::thread thread_;
};

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
    EXPECT_EQ(sweep.outlived, 0);
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
        int outlived = 0;
        go_on(SIGUSR1);
        for (int64_t took = 0; !in_front_of_a_wait(); took = microseconds_now() - sent) {
            if (took < kSteppedOutlived) continue;
            if (++outlived > 1000) throw std::runtime_error("a wait that no signal ends");
            ::kill(process_.pid(), SIGUSR1);
            usleep(1000);
        }
        ++sweep.waits;
        sweep.outlived += outlived > 0;
        sweep.by_monitor += microseconds_now() - sent > kAtOnce;
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
        while (!is_sleep()) process_.step();
        sleep_ = instruction();
        go_on(SIGUSR1);
        while (!in_front_of_a_wait()) continue;
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

    void go_on(int signal) const { ptrace(PTRACE_CONT, process_.pid(), nullptr, signal); }

    // Hands on the signals that arrive, until the next breakpoint.
    bool in_front_of_a_wait() const {
        int status = 0;
        if (waitpid(process_.pid(), &status, __WALL | WNOHANG) == 0) {
            usleep(20);
            return false;
        }
        if (!WIFSTOPPED(status)) throw std::runtime_error("the stepped process has ended");
        if (WSTOPSIG(status) == SIGTRAP) return true;
        go_on(WSTOPSIG(status));
        return false;
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
        Arrival arrival(call);
        arrival.at(3000, stalls, first); // the first call goes through the dynamic linker
        for (int round = 0; round < length(2, 200); ++round) {
            q_set_spin(round % 2 *
                       500); // in half of them the thread looks for a while, and then sleeps
            for (int at = 20; at <= 1000; at += 20) arrival.at(at, stalls, sweep);
        }
        // The monitor comes by every 100 ms.
        for (int at = 99900; at <= 100500; at += length(60, 20)) arrival.at(at, stalls, sweep);
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
