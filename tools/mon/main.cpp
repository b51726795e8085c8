// halvo-mon: shows the status of a segment, once or again and again, to people and to programs.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tools/frame/program.h"
#include "tools/mon/check.h"
#include "tools/mon/publish.h"
#include "tools/mon/screen.h"
#include "tools/mon/segment.h"
#include "tools/mon/text.h"

using namespace halvo::mon;
using halvo::tools::kDone;
using halvo::tools::kUsage;
using halvo::tools::ToolError;
using halvo::tools::write_out;

namespace {

struct Options {
    SegmentOptions segment;
    CheckOptions check;
    std::string end = "both", colour = "auto", needle;
    bool active = false, utf8 = locale_is_utf8();
    double sample = 0.5, watch = 0; // seconds; watch 0 is once
    int exit_status = kDone;        // of a command that answers with it

    // Of the printers: all chosen channels with counts since the snapshot, or the active ones alone.
    char mode() const { return active ? 'f' : 's'; }
};

struct Table {
    const char *name, *what;
    void (*print)(const Options &);
    bool has_rates, in_place;
};
constexpr Table kTables[] = {
    {"table", "The coloured table (the default)", [](const Options &o) { q_statprint2(o.mode()); },
     true, true},
    {"plain", "The table with counts in brackets", [](const Options &o) { q_statprint(o.mode()); },
     true, true},
    {"classic", "The table of ring and file queue side by side, of all channels",
     [](const Options &o) { q_statprint_classic(o.mode()); }, true, true},
    {"types", "Counts by message type, for types whose name contains a text",
     [](const Options &o) { q_tstatprint(o.needle.c_str()); }, true, true},
    {"clients", "The processes at each channel", [](const Options &) { q_clientsprint(); }, false,
     true},
    {"log", "One line for a log file", [](const Options &o) { q_statlog(o.mode()); }, true, false},
};

struct Document {
    const char *name, *what;
    int (*write)(char, char *);
};
constexpr Document kDocuments[] = {
    {"xml", "An XML document", q_statprint_xml},
    {"json", "A JSON document of all channels, with absolute counts", q_statprint_json},
};

// Colours only where somebody sees them, unless the operator says otherwise.
bool wants_colours(const Options &options, int output) {
    if (options.colour != "auto") return options.colour == "always";
    const char *none = std::getenv("NO_COLOR");
    return isatty(output) && !(none && *none);
}

std::string in_charset(const Options &options, const std::string &euc_kr) {
    return options.utf8 ? to_utf8(euc_kr) : euc_kr;
}

void show_table(const Options &options, const Table &table, int output) {
    Monitor monitor(options.segment);
    const bool colours = wants_colours(options, output);
    const auto frame = [&] {
        return for_terminal(monitor.printed([&] { table.print(options); }), colours);
    };
    if (table.has_rates) monitor.measure(options.sample);
    if (halvo::tools::stop_signal()) return;
    if (options.watch > 0)
        watch({output, options.watch, options.utf8, table.in_place, frame});
    else
        write_out(output, "standard output", in_charset(options, frame()));
}

void once(const Options &options) {
    if (options.watch > 0) throw ToolError(kUsage, "--watch is for tables and the log");
}

void show_document(const Options &options, const Document &document, int output) {
    once(options);
    const Monitor monitor(options.segment);
    const std::string text = monitor.document(document.write, options.mode());
    write_out(output, "standard output", in_charset(options, text + "\n"));
}

int32_t now() { return static_cast<int32_t>(std::time(nullptr)); }

Answer answer_of(const Options &options) {
    try {
        once(options);
        const Monitor monitor(options.segment);
        return check(Image::of_segment(), options.check, now());
    } catch (const ToolError &error) {
        return unknown(error.what());
    }
}

void answer_check(Options &options, int output) {
    options.check.readers = options.end != "writer";
    options.check.writers = options.end != "reader";
    const Answer answer = answer_of(options);
    write_out(output, "standard output", answer.line + "\n");
    options.exit_status = static_cast<int>(answer.health);
}

void add_general(CLI::App &app, Options &options) {
    app.add_option("-k,--key", options.segment.key_file, "Key file of the segment")->required();
    app.add_option("-o,--options", options.segment.options_file,
                   "File that chooses, orders, indents and colours channels");
    CLI::Option *file = app.add_option(
        "-s,--snapshot", options.segment.snapshot_file,
        "File of counts to count from: loaded, or taken now and saved when there is none");
    app.add_flag("--take", options.segment.take, "Take the snapshot anew")->needs(file);
    app.add_flag("-a,--active", options.active,
                 "Only channels with activity in the last seconds; counts are absolute");
    app.add_flag("--utf8,!--no-utf8", options.utf8,
                 "Write UTF-8, or EUC-KR as the library does (default: as the locale)");
    app.add_option("--color", options.colour, "auto: on a terminal, without NO_COLOR")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();
}

void add_timing(CLI::App &app, Options &options) {
    app.add_option("-w,--watch", options.watch,
                   "Show a table again every so many seconds, or add a log line; q ends it")
        ->check(CLI::Range(0.1, 86400.0))
        ->type_name("SECONDS");
    app.add_option("--sample", options.sample,
                   "Measure rates for so long before the first table; 0: no rates in it")
        ->check(CLI::Range(0.0, 3600.0))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_views(CLI::App &app, Options &options, Work &work) {
    for (const Table &table : kTables) {
        CLI::App *command = app.add_subcommand(table.name, table.what);
        if (std::strcmp(table.name, "types") == 0)
            command->add_option("needle", options.needle, "Text to look for; all types without");
        command->callback([&] { work = [&](int output) { show_table(options, table, output); }; });
    }
    for (const Document &document : kDocuments)
        app.add_subcommand(document.name, document.what)->callback([&] {
            work = [&](int output) { show_document(options, document, output); };
        });
}

void add_machines(CLI::App &app, Options &options, Work &work) {
    CLI::App *check = app.add_subcommand("check", "Answer as a Nagios plugin");
    const auto limit = [&](const char *name, int64_t &value, const char *what) {
        check->add_option(name, value, what)->check(CLI::NonNegativeNumber);
    };
    limit("--warning", options.check.backlog.warning, "Warn above so many waiting messages");
    limit("--critical", options.check.backlog.critical, "Critical above so many");
    limit("--warning-age", options.check.age.warning,
          "Warn when an end did nothing for more seconds");
    limit("--critical-age", options.check.age.critical, "Critical for more seconds");
    check->add_option("--end", options.end, "Ends whose age counts")
        ->check(CLI::IsMember({"reader", "writer", "both"}))
        ->capture_default_str();
    check->add_option("--channel", options.check.channels, "Channels to look at; all without");
    check->callback([&] { work = [&](int output) { answer_check(options, output); }; });
}

constexpr char kFooter[] =
    "Exit status: 0 done, also when watching was ended; 1 failed; 2 wrong usage, or no such "
    "segment\n"
    "or file. check: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.\n\n"
    "Examples:\n"
    "  halvo-mon --key /tmp/halvo.key\n"
    "  halvo-mon table --key /tmp/halvo.key --options night.opt --snapshot midnight.snap --watch "
    "2\n"
    "  halvo-mon types submit --key /tmp/halvo.key\n"
    "  halvo-mon log --key /tmp/halvo.key --snapshot midnight.snap --watch 60 >>status.log\n"
    "  halvo-mon prometheus --key /tmp/halvo.key --output /var/lib/node_exporter/halvo.prom\n"
    "  halvo-mon check --key /tmp/halvo.key --warning 100 --critical 1000 --critical-age 60\n"
    "  halvo-mon serve --key /tmp/halvo.key --listen 127.0.0.1:9470";

} // namespace

int main(int argc, char **argv) {
    Options options;
    Work work = [&](int output) { show_table(options, kTables[0], output); };
    CLI::App app("Shows the status of a queue segment: as tables, documents, log lines, metrics.",
                 "halvo-mon");
    app.set_version_flag("--version", "halvo-mon " HALVOIPC_VERSION);
    app.footer(kFooter);
    app.fallthrough();
    app.require_subcommand(0, 1);
    add_general(app, options);
    add_timing(app, options);
    add_views(app, options, work);
    add_machines(app, options, work);
    add_publishing(app, options.segment.key_file, work);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (!app.got_subcommand("check") || error.get_exit_code() == 0)
            return app.exit(error) == 0 ? kDone : kUsage;
        std::puts(unknown(error.what()).line.c_str());
        return static_cast<int>(Health::unknown);
    }
    const int status = halvo::tools::run_tool(
        "halvo-mon", "", true, [&](int output, halvo::tools::Progress &) { work(output); });
    return status != kDone ? status : options.exit_status;
}
