#include "tools/mon/screen/terminal.h"

#define NCURSES_WIDECHAR 1
#include <langinfo.h>
#include <ncurses.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "tools/frame/output.h"

namespace halvo::mon {

using tools::kUsage;
using tools::stop_signal;
using tools::ToolError;

namespace {

termios before; // as the terminal was found
int ticks = 0;  // of the timer that runs once the program is to stop

// Curses goes on writing whatever comes: a terminal that takes nothing must not keep the program.
extern "C" void give_up(int) {
    if (!stop_signal() || ++ticks < 10) return;
    tcsetattr(STDIN_FILENO, TCSANOW, &before);
    _exit(0);
}

void watch_timer() {
    struct sigaction action {};
    action.sa_handler = give_up;
    sigaction(SIGALRM, &action, nullptr);
}

void choose_locale(bool utf8) {
    std::setlocale(LC_CTYPE, "");
    if (utf8 && std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        std::setlocale(LC_CTYPE, "C.UTF-8");
}

struct Colour {
    short foreground;
    attr_t also;
};
constexpr Colour kLooks[] = {{-1, A_NORMAL},
                             {-1, A_BOLD},
                             {-1, A_DIM},
                             {-1, A_REVERSE},
                             {COLOR_GREEN, A_NORMAL},
                             {COLOR_CYAN, A_NORMAL},
                             {COLOR_YELLOW, A_NORMAL},
                             {COLOR_RED, A_BOLD},
                             {-1, A_REVERSE | A_BOLD}};

bool define_colours(bool colours) {
    if (!colours || !has_colors()) return false;
    start_color();
    use_default_colors();
    for (short i = 0; i < static_cast<short>(std::size(kLooks)); ++i)
        init_pair(static_cast<short>(i + 1), kLooks[i].foreground, -1);
    return true;
}

int key_of(int code) {
    switch (code) {
    case KEY_UP:
        return kUp;
    case KEY_DOWN:
        return kDown;
    case KEY_LEFT:
        return kLeft;
    case KEY_RIGHT:
        return kRight;
    case KEY_PPAGE:
        return kPageUp;
    case KEY_NPAGE:
        return kPageDown;
    case KEY_HOME:
        return kHome;
    case KEY_END:
        return kEnd;
    case KEY_ENTER:
        return kEnter;
    case KEY_BACKSPACE:
        return kErase;
    case KEY_RESIZE:
        return kResized;
    default:
        return kNoKey;
    }
}

int key_of_character(wint_t character) {
    switch (character) {
    case L'\r':
    case L'\n':
        return kEnter;
    case 27:
        return kEscape;
    case 8:
    case 127:
        return kErase;
    default:
        return static_cast<int>(character);
    }
}

} // namespace

Terminal::Terminal(int output, bool utf8, bool colours) : utf8_(utf8) {
    if (!isatty(output) || tcgetattr(STDIN_FILENO, &before) != 0)
        throw ToolError(kUsage, "this screen needs a terminal; the tables do without");
    choose_locale(utf8);
    utf8_ = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    watch_timer();
    setenv("ESCDELAY", "50", 0); // ms that a lone Esc is waited for
    std::FILE *out = fdopen(dup(output), "w"), *in = fdopen(dup(STDIN_FILENO), "r");
    files_[0] = out;
    files_[1] = in;
    const char *type = std::getenv("TERM");
    const std::string terminal = std::string("the terminal type ") + (type ? type : "(none)");
    screen_ = out && in ? newterm(nullptr, out, in) : nullptr;
    if (!screen_) throw ToolError(kUsage, terminal + " is not known; TERM names it");
    if (!tigetstr("cup")) {
        endwin();
        throw ToolError(kUsage, terminal + " cannot show a screen; the tables do without");
    }
    colours_ = define_colours(colours);
    cbreak();
    noecho();
    nonl();
    curs_set(0);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
}

Terminal::~Terminal() {
    endwin();
    delscreen(static_cast<SCREEN *>(screen_));
    for (void *file : files_)
        if (file) std::fclose(static_cast<std::FILE *>(file));
}

int Terminal::rows() const { return getmaxy(stdscr); }
int Terminal::columns() const { return getmaxx(stdscr); }

void Terminal::put(int row, int column, int width, const std::string &utf8, Look look) {
    if (row < 0 || row >= rows() || column >= columns()) return;
    const std::wstring text = field(utf8, std::min(width, columns() - column), utf8_);
    const auto index = static_cast<short>(look);
    attr_set(kLooks[index].also, colours_ ? static_cast<short>(index + 1) : short{0}, nullptr);
    mvaddnwstr(row, column, text.c_str(), static_cast<int>(text.size()));
    attr_set(A_NORMAL, 0, nullptr);
}

void Terminal::show() { refresh(); }

int Terminal::next_key() {
    wint_t character = 0;
    const int result = get_wch(&character);
    if (result == ERR) return kNoKey;
    return result == KEY_CODE_YES ? key_of(static_cast<int>(character))
                                  : key_of_character(character);
}

int Terminal::key(int milliseconds) {
    if (const int waiting = next_key()) return waiting; // or a change of the size
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = stop_signal() ? 0 : poll(&input, 1, milliseconds);
    if (stop_signal()) return kGone;
    if (ready < 0) return next_key();
    if (ready == 0) return kNoKey;
    if (input.revents & (POLLHUP | POLLERR | POLLNVAL)) return kGone;
    int bytes = 0;
    if (ioctl(STDIN_FILENO, FIONREAD, &bytes) != 0 || bytes == 0) return kGone; // its end
    return next_key();
}

namespace {

// The next character of a text; U+FFFD for what is none.
char32_t decoded(const std::string &utf8, size_t &at) {
    const auto lead = static_cast<unsigned char>(utf8[at++]);
    if (lead < 0x80) return lead;
    const int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    char32_t character = more == 0 ? 0xFFFDu : lead & (0x3Fu >> more);
    for (int i = 0; i < more; ++i) {
        if (at >= utf8.size() || (static_cast<unsigned char>(utf8[at]) & 0xC0) != 0x80)
            return 0xFFFD;
        character = character << 6 | (static_cast<unsigned char>(utf8[at++]) & 0x3Fu);
    }
    return character;
}

} // namespace

std::wstring field(const std::string &utf8, int width, bool shows_all) {
    std::wstring text;
    int column = 0;
    for (size_t at = 0; at < utf8.size();) {
        auto character = static_cast<wchar_t>(decoded(utf8, at));
        if (character < 0x20 || character == 0x7f || (!shows_all && character > 0x7f))
            character = L'?';
        const int columns = character < 0x80 ? 1 : wcwidth(character);
        if (columns <= 0) continue;
        if (column + columns > width) break;
        text += character;
        column += columns;
    }
    text.append(static_cast<size_t>(std::max(width - column, 0)), L' ');
    return text;
}

std::string utf8_of(char32_t c) {
    std::string out;
    const auto add = [&](char32_t bits) { out += static_cast<char>(bits); };
    if (c < 0x80) {
        add(c);
    } else if (c < 0x800) {
        add(0xC0 | c >> 6);
        add(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        add(0xE0 | c >> 12);
        add(0x80 | (c >> 6 & 0x3F));
        add(0x80 | (c & 0x3F));
    } else {
        add(0xF0 | c >> 18);
        add(0x80 | (c >> 12 & 0x3F));
        add(0x80 | (c >> 6 & 0x3F));
        add(0x80 | (c & 0x3F));
    }
    return out;
}

} // namespace halvo::mon
