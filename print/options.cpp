// smsqm_print: the options file, which chooses, orders, indents and colours channels.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "halvo/queue.h"
#include "print/state.h"

halvo_print_option *qprtopts;
halvo_print_option *qoptTitle;
halvo_print_option *qoptHeader;
halvo_print_option *qoptMsg;

using namespace halvo;

namespace {

constexpr int kLineSize = 1024;

struct Special {
    const char *key;
    halvo_print_option **record;
};
constexpr Special kSpecials[] = {
    {"!TITLE", &qoptTitle},
    {"!HEADER", &qoptHeader},
    {"!MSG", &qoptMsg},
};

// A number that begins with a digit; -1 for any other word and for none.
int32_t attribute_of(const char *word) {
    if (!word || word[0] < '0' || word[0] > '9') return -1;
    return static_cast<int32_t>(std::min<long>(std::strtol(word, nullptr, 10), INT_MAX));
}

// A line taken apart at blanks; the key is empty for a line that has none.
struct Line {
    halvo_print_option option{HALVO_OPTION_UNUSED, 0, -1, -1};
    const char *key = "";
    const Special *special = nullptr;

    explicit Line(char *text) {
        option.indent = static_cast<int32_t>(std::strspn(text, " "));
        char *rest = nullptr;
        char *word = strtok_r(text, " ", &rest);
        if (!word) return;
        option.attr1 = attribute_of(strtok_r(nullptr, " ", &rest));
        option.attr2 = attribute_of(strtok_r(nullptr, " ", &rest));
        *std::remove_if(word, word + std::strlen(word),
                        [](char c) { return c == '\r' || c == '\n'; }) = '\0';
        if (word[0] != '#') key = word;
    }

    // Whether the line makes a record.
    bool resolve() {
        if (key[0] == '\0') return false;
        for (const Special &candidate : kSpecials)
            if (std::strcmp(key, candidate.key) == 0) special = &candidate;
        option.channel = special ? HALVO_OPTION_SPECIAL : q_name2chnnl(key);
        return special || option.channel >= 0;
    }
};

// Empties the list, which has the same memory as long as the process lives.
bool clear_list() {
    if (!qprtopts)
        qprtopts = static_cast<halvo_print_option *>(
            std::calloc(HALVO_PRINT_OPTIONS, sizeof(halvo_print_option)));
    if (!qprtopts) return false;
    for (int i = 0; i < HALVO_PRINT_OPTIONS; ++i) qprtopts[i] = {HALVO_OPTION_UNUSED, 0, 0, 0};
    for (const Special &special : kSpecials) *special.record = nullptr;
    return true;
}

// Adds the record of a line, if it makes one. False when the list is full.
bool add_line(char *text, int &records) {
    Line line(text);
    if (!line.resolve()) return true;
    if (records == HALVO_PRINT_OPTIONS) {
        std::printf("print options: the lines behind the first %d records are ignored\n",
                    static_cast<int>(HALVO_PRINT_OPTIONS));
        return false;
    }
    std::printf("NAME(%s)(%d),CHNNL(%d),INDENT(%d)\n", line.key,
                static_cast<int>(std::strlen(line.key)), static_cast<int>(line.option.channel),
                static_cast<int>(line.option.indent));
    qprtopts[records] = line.option;
    if (line.special) *line.special->record = &qprtopts[records];
    ++records;
    return true;
}

} // namespace

int readline(int fd, char *buf, int max) noexcept {
    const CancellationOff whole_call;
    if (!buf || max < 1) return 0;
    int stored = 0;
    while (stored < max - 1) {
        const ssize_t got = read(fd, buf + stored, 1);
        if (got < 0) stored = 0;
        if (got <= 0) {
            buf[stored] = '\0';
            return got < 0 ? -1 : stored;
        }
        if (buf[stored++] == '\n') break;
    }
    buf[stored] = '\0';
    return stored;
}

int q_load_print_options(const char *path) noexcept {
    const CancellationOff whole_call;
    if (!path) return -1;
    Descriptor file = open_file(path, O_RDONLY);
    if (!file) return file.get();
    char line[kLineSize];
    int length = readline(file.get(), line, kLineSize);
    if (length >= 0) {
        if (!clear_list()) return -1;
        int records = 0;
        while (length > 0 && add_line(line, records))
            length = readline(file.get(), line, kLineSize);
    }
    return close(file.release());
}
