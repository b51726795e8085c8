#include "bench/processes.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

namespace halvo::bench {

namespace {

sigset_t held_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, number);
    return set;
}

void release_signals() {
    const sigset_t set = held_signals();
    signal(SIGINT, SIG_IGN); // the waiting parent ends everything in order
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void pin(size_t number) {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) < 0) return;
    const auto count = static_cast<size_t>(CPU_COUNT(&allowed));
    size_t left = number % count;
    for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &allowed) || left-- > 0) continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        sched_setaffinity(0, sizeof one, &one);
        return;
    }
}

// Where that is allowed, so that others' work disturbs less. A kernel that shares the processors
// out by sessions first wants a session of its own that has the priority.
void take_priority() {
    setsid();
    setpriority(PRIO_PROCESS, 0, -20);
    const int group = open("/proc/self/autogroup", O_WRONLY | O_CLOEXEC);
    if (group < 0) return;
    if (write(group, "-20", 3) < 0) errno = 0; // then the others' work disturbs
    close(group);
}

struct Unmap {
    void operator()(Shared *shared) const { munmap(shared, sizeof *shared); }
};

[[noreturn]] void run_child(const Job &job, size_t number, pid_t parent, Shared &shared) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    release_signals();
    pin(number);
    take_priority();
    // The library reports on standard output.
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    int status = 0;
    try {
        job(shared);
    } catch (const std::exception &error) {
        std::snprintf(shared.error, sizeof shared.error, "%s", error.what());
        status = 1;
    }
    _exit(status); // what the parent owns is not given back here
}

// The processes of a run; none is left when this goes.
class Children {
public:
    ~Children() {
        for (const pid_t pid : pids_) kill(pid, SIGKILL);
        for (const pid_t pid : pids_)
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
    }
    void start(const Job &job, size_t number, Shared &shared) {
        const pid_t parent = getpid();
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid < 0) throw Failure("fork");
        if (pid == 0) run_child(job, number, parent, shared);
        pids_.push_back(pid);
    }
    bool empty() const { return pids_.empty(); }
    // Takes those that have ended. False when one ended badly.
    bool collect() {
        bool good = true;
        std::erase_if(pids_, [&](pid_t pid) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) != pid) return false;
            good = good && WIFEXITED(status) && WEXITSTATUS(status) == 0;
            return true;
        });
        return good;
    }

private:
    std::vector<pid_t> pids_;
};

void wait_for_signal(double limit) {
    const sigset_t set = held_signals();
    const auto whole = static_cast<time_t>(limit);
    const timespec wait{whole, static_cast<long>((limit - static_cast<double>(whole)) * 1e9)};
    const int number = sigtimedwait(&set, nullptr, &wait);
    if (number > 0 && number != SIGCHLD) throw Interrupted();
}

} // namespace

Measured run(const std::vector<Job> &jobs, double limit) {
    void *memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw Failure("mmap");
    const std::unique_ptr<Shared, Unmap> shared(new (memory) Shared);
    const double end = seconds_now() + limit;
    Children children;
    for (size_t i = 0; i < jobs.size(); ++i) children.start(jobs[i], i, *shared);
    while (!children.empty()) {
        if (!children.collect())
            throw Failure(shared->error[0] ? shared->error : "a process ended unexpectedly");
        if (children.empty()) break;
        const double left = end - seconds_now();
        if (left <= 0) throw Failure("not done within " + std::to_string(limit) + " seconds");
        wait_for_signal(std::min(left, 1.0));
    }
    return shared->result;
}

void hold_signals() {
    const sigset_t set = held_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

void execute(const std::vector<std::string> &words) {
    std::vector<char *> argv;
    for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    throw Failure("cannot start " + words[0]);
}

int processors() {
    cpu_set_t allowed;
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? CPU_COUNT(&allowed) : 1;
}

} // namespace halvo::bench
