// What halvo-send, halvo-recv and halvo-fq share: the open end of a channel, clean ends on signals,
// lines in and bytes out, the progress line, and errors with the result code's name.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "halvo/frx.h"
#include "tools/frame/line_reader.h"
#include "tools/frame/output.h"

namespace halvo::tools {

// "ESMS_TIMEOUT (a blocking wait ran out of time)".
std::string result_text(int code);

// Keeps the library's own lines, which it prints on standard output, out of the data: they go to a
// file in memory from now on, to the end of the process, for its threads print too. Throws ToolError.
class LibraryMessages {
public:
    LibraryMessages();
    LibraryMessages(const LibraryMessages &) = delete;
    LibraryMessages &operator=(const LibraryMessages &) = delete;

    int standard_output() const { return standard_output_; } // the real one
    // On standard error, for a failure; without the lines that every start has.
    void show() const;

private:
    int standard_output_;
    int messages_;
};

// An end of a channel, open as long as this lives. Names are as the operator typed them. Throws
// ToolError.
class OpenEnd {
public:
    OpenEnd(const std::string &key_file, const std::string &channel, char side,
            const std::string &client, int timeout);
    ~OpenEnd();
    OpenEnd(const OpenEnd &) = delete;
    OpenEnd &operator=(const OpenEnd &) = delete;

    FrxChannel *handle() { return &handle_; }
    halvo_channel *header() const;
    uint32_t longest_message() const; // bytes

private:
    FrxChannel handle_{};
};

// Calls each(line) for every line, without its line feed unless keep_newline, and at the end, also
// when it failed, commit(). Returns how many lines were empty, which nothing is called for. Throws
// ToolError, with the number of the line.
uint64_t for_each_line(LineReader &lines, const std::string &name, bool keep_newline,
                       const std::function<void(const std::string &)> &each,
                       const std::function<void()> &commit);

// Counts what went through; shows it on a terminal while it goes and as one line at the end.
class Progress {
public:
    Progress(const char *program, const char *noun, bool quiet);
    void add(uint64_t messages, uint64_t bytes);
    uint64_t messages() const { return messages_; }
    void finish();

private:
    std::string line() const;
    double seconds() const;
    const char *program_;
    const char *noun_; // of what is counted
    bool quiet_;
    bool terminal_;
    double began_;
    double shown_;
    uint64_t messages_ = 0;
    uint64_t bytes_ = 0;
};

// The frame of the programs: runs work(descriptor of the real standard output, progress), reports a
// ToolError, and returns the exit status.
int run_tool(const char *program, const char *noun, bool quiet,
             const std::function<void(int, Progress &)> &work);

} // namespace halvo::tools
