// Output that a signal can end, and the failures that end a program.
#pragma once

#include <stdexcept>
#include <string>

#include "core/base/posix.h"

namespace halvo::tools {

// Exit statuses of the programs.
enum Exit { kDone = 0, kFailed = 1, kUsage = 2 };

// A failure as one line for the operator, and the exit status that goes with it.
class ToolError : public std::runtime_error {
public:
    ToolError(int status, const std::string &line) : std::runtime_error(line), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

// Takes the numbers of standard descriptors that the program was started without, so that no file gets
// them: what is written to it, or read from it, fails as on a closed one. Call it before any open.
void hold_standard_descriptors();

// From now on SIGINT, SIGTERM and SIGHUP ask to stop, but for those that the program was started to
// ignore (nohup does that). Waits, reads and writes return when one comes, also when it came just
// before them: from then on a timer interrupts them again and again. SIGPIPE becomes an error of
// write.
void catch_stop_signals();
int stop_signal(); // 0, or the number of the signal that asked to stop

// A file that the operator named, open as long as this lives; for "-" the standard stream in its place.
class NamedFile {
public:
    // `flags` as of open(). Throws ToolError, as for wrong usage, when it cannot be opened.
    NamedFile(const std::string &path, int flags, int standard);
    int descriptor() const { return file_ ? file_.get() : standard_; }

private:
    Descriptor file_;
    int standard_;
};

// Whether it is a terminal, and one that knows more than text: not one that TERM calls dumb.
bool obeys_escapes(int descriptor);

// Writes everything; throws ToolError, with status 128 + signal when it is to stop and the output takes
// no more. `name` is what the descriptor is called in the error, - for standard output.
void write_out(int descriptor, const std::string &name, const std::string &bytes);

} // namespace halvo::tools
