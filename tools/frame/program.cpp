#include "tools/frame/program.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "halvo/queue.h"
#include "tools/frame/attachment.h"
#include "tools/frame/charset.h"
#include "tools/frame/clock.h"
#include "tools/frame/text.h"

namespace halvo::tools {

std::string result_text(int code) {
    switch (code) {
#define HALVO_RESULT_TEXT(name, value, meaning)                                                    \
    case value:                                                                                    \
        return #name " (" meaning ")";
        HALVO_RESULT_CODES(HALVO_RESULT_TEXT)
#undef HALVO_RESULT_TEXT
    default:
        return "result " + std::to_string(code);
    }
}

LibraryMessages::LibraryMessages()
    : standard_output_(dup(STDOUT_FILENO)), messages_(memfd_create("messages", MFD_CLOEXEC)) {
    if (standard_output_ < 0 || messages_ < 0 || dup2(messages_, STDOUT_FILENO) < 0)
        throw ToolError(kFailed, std::string("standard output: ") + std::strerror(errno));
}

namespace {

// What the library says in every process, also when all goes well.
bool is_greeting(const std::string &line) {
    return line.rfind("/*", 0) == 0 || line == "SHM_INIT_FINISHED.\n" ||
           line == "C Timeout Monitoring Service Started.\n";
}

} // namespace

void LibraryMessages::show() const {
    std::fflush(stdout);
    lseek(messages_, 0, SEEK_SET);
    LineReader lines(messages_);
    for (std::string line; lines.next(line) == LineReader::Read::line;)
        if (!is_greeting(line)) std::fwrite(line.data(), 1, line.size(), stderr);
}

namespace {

// Who holds an end, or held it last. Empty when nobody ever did.
std::string holder_text(const halvo_channel &q, char side) {
    const int pid = side == 'w' ? q.pidp : q.pidg;
    if (pid == 0) return {};
    return text("; its last holder is process %d, ", pid) +
           for_locale(printable(side == 'w' ? q.pname : q.gname, HALVO_NAME_SIZE));
}

} // namespace

OpenEnd::OpenEnd(const std::string &key_file, const std::string &channel, char side,
                 const std::string &client, int timeout) {
    if (const std::string fault = attach_fault(key_file, true); !fault.empty())
        throw ToolError(kUsage, fault);
    const int attached = frx_initialize(key_file.c_str());
    if (attached != ESMS_OK) throw ToolError(kUsage, key_file + ": " + result_text(attached));
    int number = frx_channelByName(channel.c_str());
    if (number < 0) number = frx_channelByName(to_euc_kr(channel).value_or(channel).c_str());
    if (number < 0)
        throw ToolError(kUsage, channel + ": no channel of that name in " + key_file +
                                    "; halvo-qm list shows those there are");
    const int opened = frx_openChannel(&handle_, typed(client).c_str(), number, side, timeout);
    if (opened != ESMS_OK && stop_signal()) // it ended the wait
        throw ToolError(128 + stop_signal(), "stopped by a signal");
    if (opened != ESMS_OK)
        throw ToolError(kFailed, channel + ": the " + (side == 'w' ? "writer" : "reader") +
                                     "'s end could not be opened, " + result_text(opened) +
                                     holder_text(*q_chnnl2q(number), side));
    q_recover(number, side); // the last holder may have been killed
}

OpenEnd::~OpenEnd() { frx_closeChannel(&handle_); }

halvo_channel *OpenEnd::header() const { return q_chnnl2q(handle_.channel); }

uint32_t OpenEnd::longest_message() const {
    return static_cast<uint32_t>(frx_sizeOfData(handle_.channel));
}

namespace {

uint64_t each_line(LineReader &lines, const std::string &name, bool keep_newline,
                   const std::function<void(const std::string &)> &each) {
    std::string line;
    uint64_t empty = 0;
    for (uint64_t number = 1;; ++number) {
        LineReader::Read read;
        do {
            read = lines.next(line);
            if (stop_signal()) throw ToolError(128 + stop_signal(), "stopped by a signal");
        } while (read == LineReader::Read::interrupted);
        if (read == LineReader::Read::end) return empty;
        if (read == LineReader::Read::failed)
            throw ToolError(kFailed,
                            (name == "-" ? "standard input" : name) + ": " + std::strerror(errno));
        if (!keep_newline && line.back() == '\n') line.pop_back();
        if (line.empty()) {
            ++empty;
            continue;
        }
        try {
            each(line);
        } catch (const ToolError &error) {
            throw ToolError(error.status(), "line " + std::to_string(number) + ": " + error.what());
        }
    }
}

} // namespace

uint64_t for_each_line(LineReader &lines, const std::string &name, bool keep_newline,
                       const std::function<void(const std::string &)> &each,
                       const std::function<void()> &commit) {
    try {
        const uint64_t empty = each_line(lines, name, keep_newline, each);
        commit();
        return empty;
    } catch (const ToolError &) {
        commit(); // the lines before the one that failed
        throw;
    }
}

Progress::Progress(const char *program, const char *noun, bool quiet)
    : program_(program), noun_(noun), quiet_(quiet), terminal_(obeys_escapes(STDERR_FILENO)),
      began_(monotonic()), shown_(began_) {}

double Progress::seconds() const { return monotonic() - began_; }

std::string Progress::line() const {
    const double took = seconds();
    const double rate = took > 0 ? static_cast<double>(messages_) / took : 0;
    return text("%s: %ju %s, %ju bytes in %.2f s, %.0f %s/s", program_,
                static_cast<uintmax_t>(messages_), noun_, static_cast<uintmax_t>(bytes_), took,
                rate, noun_);
}

void Progress::add(uint64_t messages, uint64_t bytes) {
    if (messages_ == 0)
        began_ = monotonic(); // what counts is the transfer, not the wait for its start
    messages_ += messages;
    bytes_ += bytes;
    if (quiet_ || !terminal_ || monotonic() - shown_ < 0.2) return;
    shown_ = monotonic();
    winsize size{}; // a line that wraps could not be overwritten
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    std::fprintf(stderr, "\r%s\033[K", line().substr(0, known ? size.ws_col - 1u : 79u).c_str());
}

void Progress::finish() {
    if (!quiet_) std::fprintf(stderr, "%s%s\n", terminal_ ? "\r\033[K" : "", line().c_str());
}

int run_tool(const char *program, const char *noun, bool quiet,
             const std::function<void(int, Progress &)> &work) {
    Progress progress(program, noun, quiet);
    try {
        const LibraryMessages messages;
        try {
            catch_stop_signals();
            work(messages.standard_output(), progress);
        } catch (const ToolError &) {
            messages.show();
            throw;
        }
    } catch (const ToolError &error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        if (error.status() != kUsage) progress.finish();
        return error.status();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return kFailed;
    }
    progress.finish();
    return kDone;
}

} // namespace halvo::tools
