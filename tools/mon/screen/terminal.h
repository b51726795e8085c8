// halvo-mon: a terminal as cells, by curses: texts in, keys out.
#pragma once

#include <termios.h>

#include <string>

namespace halvo::mon {

enum class Look { plain, bold, dim, reverse, good, notice, warning, alarm, chosen };

// A key: a character as a Unicode number, or one of these.
enum Key : int {
    kNoKey = 0,
    kUp = -100,
    kDown,
    kLeft,
    kRight,
    kPageUp,
    kPageDown,
    kHome,
    kEnd,
    kEnter,
    kEscape,
    kErase,
    kResized,
    kGone, // nobody is there any more, or the program is to stop
};

// Takes the whole screen as long as it lives and leaves the terminal as it was. Ctrl-Z works. A program
// that is asked to stop while the terminal takes nothing ends at once.
class Terminal {
public:
    // `output` is the terminal's descriptor; keys come from standard input. Throws ToolError where
    // there is no terminal, or none that is known.
    Terminal(int output, bool utf8, bool colours);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    int rows() const;
    int columns() const;
    // Writes UTF-8 text into a field, cut or filled with blanks to its width; what lies outside of the
    // screen is left out.
    void put(int row, int column, int width, const std::string &utf8, Look look = Look::plain);
    void show(); // what was put since
    // Waits so long for a key, or until one is there.
    int key(int milliseconds);

private:
    int next_key();

    bool utf8_, colours_ = false;
    void *screen_ = nullptr; // curses'
    void *files_[2] = {};
};

// A text's first columns, filled with blanks to that width: a Korean syllable takes two. Without
// UTF-8 other characters than ASCII become '?'.
std::wstring field(const std::string &utf8, int width, bool shows_all = true);

// The UTF-8 text of a Unicode number.
std::string utf8_of(char32_t character);

} // namespace halvo::mon
