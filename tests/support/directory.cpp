#include "tests/support/directory.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "tools/qm/segment.h"

namespace halvo::test {

namespace {

constexpr char kSpare = 's';

[[noreturn]] void fail(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int remove_entry(const char *path, const struct stat *, int, FTW *) {
    ::remove(path);
    return 0; // what cannot be removed does not keep the rest
}

// Every descriptor but one: an inherited pipe end would keep its reader waiting for the janitor.
void close_all_but(int fd) {
    const auto kept = static_cast<unsigned>(fd);
    if (kept > 0) close_range(0, kept - 1, 0);
    close_range(kept + 1, ~0U, 0);
}

bool told_to_spare(int fd) {
    bool spare = false;
    for (;;) {
        char byte = 0;
        const ssize_t got = read(fd, &byte, 1);
        if (got == 0) return spare;
        if (got == 1) spare = byte == kSpare;
        if (got < 0 && errno != EINTR) return spare;
    }
}

[[noreturn]] void run_janitor(int fd, const std::string &directory, const std::string &key_file) {
    prctl(PR_SET_NAME, "halvo-janitor");
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) signal(number, SIG_IGN);
    if (chdir("/") < 0) _exit(1);
    close_all_but(fd);
    const bool spare = told_to_spare(fd);
    try {
        if (!spare && !key_file.empty()) qm::remove(key_file);
    } catch (...) { // the normal end has removed it already, or nobody is left to tell
    }
    remove_tree(directory);
    _exit(0);
}

} // namespace

std::string make_test_directory() {
    const char *base = std::getenv("TMPDIR");
    std::string path = std::string(base && *base ? base : "/tmp") + "/halvo-test-XXXXXX";
    if (!mkdtemp(path.data())) fail("mkdtemp");
    return path;
}

void remove_tree(const std::string &directory) {
    nftw(directory.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

Descriptor start_janitor(const std::string &directory, const std::string &key_file) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) fail("pipe2");
    const Descriptor watched(ends[0]);
    Descriptor alive(ends[1]);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) fail("fork");
    if (child == 0) {
        // A second fork under a new session: the janitor is no descendant of the test, so that
        // whoever kills the test with all its descendants leaves it alone.
        setsid();
        const pid_t janitor = fork();
        if (janitor != 0) _exit(janitor < 0);
        run_janitor(watched.get(), directory, key_file);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0) throw std::runtime_error("cannot start a janitor");
    return alive;
}

void spare_segment(const Descriptor &alive) {
    while (write(alive.get(), &kSpare, 1) < 0 && errno == EINTR) {
    }
}

} // namespace halvo::test
