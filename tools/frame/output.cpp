#include "tools/frame/output.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace halvo::tools {

namespace {

// Atomic: the library's own thread may be the one that takes the signal.
std::atomic<int> stop{0};
static_assert(std::atomic<int>::is_always_lock_free); // a handler stores it

extern "C" void remember_stop(int number) {
    const int error = errno;
    stop = number;
    const itimerval again{{0, 200000}, {0, 200000}};
    setitimer(ITIMER_REAL, &again, nullptr);
    errno = error;
}
extern "C" void interrupt(int) {}

void handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) return;
    action.sa_handler = handler; // without SA_RESTART
    action.sa_flags = 0;
    sigaction(number, &action, nullptr);
}

} // namespace

void hold_standard_descriptors() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(number, F_GETFD) < 0) // the lowest free number is this one
            open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

void catch_stop_signals() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) handle(number, remember_stop);
    handle(SIGALRM, interrupt);
    handle(SIGPIPE, SIG_IGN);
}

int stop_signal() { return stop; }

NamedFile::NamedFile(const std::string &path, int flags, int standard) : standard_(standard) {
    if (path == "-") return;
    file_ = open_file(path.c_str(), flags);
    if (!file_) throw ToolError(kUsage, path + ": " + std::strerror(errno));
}

bool obeys_escapes(int descriptor) {
    const char *const type = std::getenv("TERM");
    return isatty(descriptor) != 0 && !(type && std::strcmp(type, "dumb") == 0);
}

void write_out(int descriptor, const std::string &path, const std::string &bytes) {
    const std::string name = path == "-" ? "standard output" : path;
    int without_progress = 0;
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t wrote = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (wrote >= 0) {
            done += static_cast<size_t>(wrote);
            without_progress = 0;
        } else if (errno != EINTR) {
            throw ToolError(kFailed, name + ": " + std::strerror(errno));
        } else if (stop_signal() && ++without_progress > 1) {
            throw ToolError(128 + stop_signal(), name + ": stopped while it took nothing");
        }
    }
}

} // namespace halvo::tools
