// halvo-mon: what the command line says, and the work that a command stands for.
#pragma once

#include <functional>
#include <string>

#include "tools/frame/charset.h"
#include "tools/frame/command_line.h"
#include "tools/frame/output.h"
#include "tools/mon/check.h"
#include "tools/mon/look/monitor.h"

namespace halvo::mon {

struct Options {
    SegmentOptions segment;
    CheckOptions check;
    std::string end = "both", held = "none", limits, colour = "auto", needle, output = "-";
    bool active = false, utf8 = tools::locale_is_utf8();
    bool document_utf8 = true;             // documents are UTF-8 unless told otherwise
    double sample = 2, watch = 0;          // seconds; watch 0 is once
    double every = 1, every_recorded = 10; // seconds between two looks, live and of a record
    std::string from, at, channel;         // the record, a time in it, a channel of it
    int64_t megabytes = 100;               // greatest size of a record
    bool needs_key = true;
    int exit_status = tools::kDone; // of a command that answers with it
    bool answers_as_plugin = false; // failures end with 3

    // Of the printers: all chosen channels with counts since the snapshot, or the active ones alone.
    char mode() const { return active ? 'f' : 's'; }
    std::string in_charset(const std::string &euc_kr) const {
        return utf8 ? tools::to_utf8(euc_kr) : euc_kr;
    }
    // Colours only where somebody sees them, unless the operator says otherwise.
    bool wants_colours(int descriptor) const;
    // Throws ToolError when --watch was given, for a command that it is not for.
    void once() const;
};

using Work = std::function<void(int)>; // takes the descriptor of the output

// Each adds commands; a command that is chosen sets `work`.
void add_views(const tools::Program &program, Options &options, Work &work);    // tables, documents
void add_machines(const tools::Program &program, Options &options, Work &work); // metrics, check
void add_serve(const tools::Program &program, Options &options, Work &work);
void add_live(const tools::Program &program, Options &options, Work &work); // top, record, replay

// The view without a name.
void show_first_table(const Options &options, int output);

} // namespace halvo::mon
