#include "tools/mon/screen/screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <ctime>
#include <sstream>
#include <vector>

#include "tools/frame/program.h"
#include "tools/mon/screen/text.h"

namespace halvo::mon {

using tools::stop_signal;
using tools::write_out;

namespace {

volatile std::sig_atomic_t suspend_asked = 0;

extern "C" void note_suspend(int) { suspend_asked = 1; }
extern "C" void note_nothing(int) {} // a new size ends the wait, so that a frame follows

void handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(number, &action, nullptr);
}

// Signals are held back but while the loop waits or writes, so that none comes between a look and a
// wait.
class HeldSignals {
public:
    HeldSignals() {
        handle(SIGTSTP, note_suspend);
        handle(SIGWINCH, note_nothing);
        sigset_t held;
        sigemptyset(&held);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH})
            sigaddset(&held, number);
        sigprocmask(SIG_BLOCK, &held, &open_);
    }
    ~HeldSignals() { sigprocmask(SIG_SETMASK, &open_, nullptr); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    const sigset_t *open() const { return &open_; }

    // write_out() with them let through: it ends by itself when one comes and nobody takes the output.
    void write(int output, const char *name, const std::string &bytes) const {
        sigset_t held;
        sigprocmask(SIG_SETMASK, &open_, &held);
        const Restore restore{held};
        write_out(output, name, bytes);
    }

private:
    struct Restore {
        const sigset_t &held;
        ~Restore() { sigprocmask(SIG_SETMASK, &held, nullptr); }
    };
    sigset_t open_{};
};

// The keyboard without line editing and echo. A program in the background leaves it alone, and takes
// it when it comes to the foreground.
class Keyboard {
public:
    Keyboard() { take(); }
    ~Keyboard() {
        if (taken_ && in_foreground()) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    Keyboard(const Keyboard &) = delete;
    Keyboard &operator=(const Keyboard &) = delete;

    // What to wait for. A terminal that is closed answers in any case.
    pollfd waiting() const {
        const short events = taken_ ? POLLIN : 0;
        return {is_terminal_ ? STDIN_FILENO : -1, events, 0};
    }
    // Whether it may have to be taken later.
    bool may_come() const { return is_terminal_ && !taken_; }
    void take() {
        if (!may_come() || !in_foreground() || tcgetattr(STDIN_FILENO, &before_) != 0) return;
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        taken_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
    }

    // Looks at what a wait found. True when a q was typed, or nobody will type any more.
    bool quits(short found) {
        if (found & (POLLHUP | POLLERR | POLLNVAL)) return true;
        if (!(found & POLLIN)) return false;
        if (!in_foreground()) { // reading would stop the program
            taken_ = false;
            return false;
        }
        char keys[64];
        const ssize_t got = read(STDIN_FILENO, keys, sizeof keys);
        if (got < 0) return errno != EINTR && errno != EAGAIN;
        for (ssize_t i = 0; i < got; ++i)
            if (keys[i] == 'q' || keys[i] == 'Q') return true;
        return got == 0;
    }

private:
    static bool in_foreground() { return tcgetpgrp(STDIN_FILENO) == getpgrp(); }

    termios before_{};
    const bool is_terminal_ = isatty(STDIN_FILENO) != 0;
    bool taken_ = false;
};

struct Size {
    size_t rows = 24, columns = 80;
};

Size size_of(int terminal) {
    winsize found{};
    Size size;
    if (ioctl(terminal, TIOCGWINSZ, &found) != 0) return size;
    if (found.ws_row > 0) size.rows = found.ws_row;
    if (found.ws_col > 0) size.columns = found.ws_col;
    return size;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// When not all lines fit, those at the end make room for a word about it, but for the very last one.
std::vector<std::string> fitting(std::vector<std::string> lines, size_t rows) {
    if (lines.size() <= rows || rows < 2) {
        if (lines.size() > rows) lines.resize(rows);
        return lines;
    }
    const size_t hidden = lines.size() - rows + 1;
    const std::string last = lines.back();
    lines.resize(rows - 2);
    lines.push_back("... " + std::to_string(hidden) + " more lines; --options chooses channels");
    lines.push_back(last);
    return lines;
}

// The alternate screen without a cursor.
class Screen {
public:
    Screen(const Watch &watch, const HeldSignals &signals) : watch_(watch), signals_(signals) {
        put("\x1b[?1049h\x1b[?25l\x1b[?7l");
    }
    ~Screen() {
        try {
            put("\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l");
        } catch (const tools::ToolError &) { // the terminal is gone
        }
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    // In one write, and without clearing first, so that nothing flickers.
    void show(const std::string &frame) const {
        const Size size = size_of(watch_.output);
        std::string bytes = "\x1b[H";
        const char *separator = "";
        for (const std::string &line : fitting(lines_of(frame), size.rows)) {
            const std::string part = clipped(line, size.columns);
            bytes += std::string(separator) + "\x1b[2K" + (watch_.utf8 ? to_utf8(part) : part);
            bytes += "\x1b[0m";
            separator = "\r\n";
        }
        put(bytes + "\x1b[J");
    }

private:
    void put(const std::string &bytes) const { signals_.write(watch_.output, "terminal", bytes); }
    const Watch &watch_;
    const HeldSignals &signals_;
};

timespec in_seconds(double seconds) {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const double whole = std::floor(seconds);
    time.tv_sec += static_cast<time_t>(whole);
    time.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
    if (time.tv_nsec >= 1000000000L) {
        time.tv_nsec -= 1000000000L;
        ++time.tv_sec;
    }
    return time;
}

timespec left_until(const timespec &due) {
    const timespec now = in_seconds(0);
    timespec left{due.tv_sec - now.tv_sec, due.tv_nsec - now.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_nsec += 1000000000L;
        --left.tv_sec;
    }
    return left.tv_sec < 0 ? timespec{} : left;
}

enum class Event { due, resized, suspended, end };

constexpr timespec kKeyboardPause{0, 500000000}; // between looks whether it is ours again

bool is_earlier(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

// Waits for the next frame's time, or for what comes before it.
Event wait_for_event(const timespec &due, Keyboard *keyboard, const HeldSignals &signals) {
    for (;;) {
        if (stop_signal()) return Event::end;
        if (suspend_asked) return Event::suspended;
        if (keyboard) keyboard->take();
        pollfd key = keyboard ? keyboard->waiting() : pollfd{-1, 0, 0};
        const timespec left = left_until(due);
        const bool short_wait =
            keyboard && keyboard->may_come() && is_earlier(kKeyboardPause, left);
        const int ready = ppoll(&key, 1, short_wait ? &kKeyboardPause : &left, signals.open());
        if (ready > 0 && keyboard->quits(key.revents)) return Event::end;
        if (ready == 0 && !short_wait) return Event::due;
        if (ready < 0 && !stop_signal() && !suspend_asked) return Event::resized;
    }
}

void watch_terminal(const Watch &watch, const HeldSignals &signals) {
    std::string frame = watch.frame();
    timespec due = in_seconds(watch.seconds);
    for (;;) {
        {
            Keyboard keyboard;
            const Screen screen(watch, signals);
            Event event;
            do {
                screen.show(frame);
                event = wait_for_event(due, &keyboard, signals);
                if (event != Event::due) continue;
                frame = watch.frame();
                due = in_seconds(watch.seconds);
            } while (event == Event::due || event == Event::resized);
            if (event == Event::end) return;
        }
        suspend_asked = 0;
        raise(SIGSTOP); // until the shell continues us
    }
}

void watch_elsewhere(const Watch &watch, const HeldSignals &signals) {
    handle(SIGTSTP, SIG_DFL);
    Event event = Event::due;
    const char *separator = "";
    timespec due{};
    while (event != Event::end) {
        if (event == Event::due) {
            due = in_seconds(watch.seconds);
            const std::string frame = watch.frame();
            signals.write(watch.output, "standard output",
                          separator + (watch.utf8 ? to_utf8(frame) : frame));
            if (watch.redraw) separator = "\n";
        }
        event = wait_for_event(due, nullptr, signals);
    }
}

} // namespace

void watch(const Watch &watch) {
    const HeldSignals signals;
    try {
        if (watch.redraw && isatty(watch.output))
            watch_terminal(watch, signals);
        else
            watch_elsewhere(watch, signals);
    } catch (const tools::ToolError &) {
        if (!stop_signal()) throw; // else it ended as asked, if in the middle of a frame
    }
}

} // namespace halvo::mon
