// halvo-mon: the commands that show what the library's printers print: tables, the log, documents.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "tools/frame/text.h"
#include "tools/mon/documents.h"
#include "tools/mon/options.h"
#include "tools/mon/screen/screen.h"
#include "tools/mon/screen/text.h"
#include "tools/qm/segment.h"

namespace halvo::mon {

using tools::write_out;

namespace {

// Without a text to look for the library's table has a cell for each of 4095 types. Then it is a row
// for each type that a channel has counted.
void print_types(const Options &options) {
    if (!options.needle.empty()) {
        q_tstatprint(tools::typed(options.needle).c_str());
        return;
    }
    q_printlogo();
    std::printf("%-23s %4s %-23s %12s %9s %5s\n", "CHANNEL", "TYPE", "NAME", "MESSAGES", "ERRORS",
                "RATIO");
    const qm::SegmentView view{qm::Keys(options.segment.key_file)};
    for (uint32_t i = 0; i < view.channels(); ++i) {
        const halvo_channel *q = view.channel(i);
        for (int type = 1; q && type < HALVO_TYPES; ++type) {
            const halvo_counter &counter = q->tcnt[type];
            if (counter.count == 0 && counter.ecount == 0) continue;
            const auto &name = view.header()->qtcnt[type].tname;
            std::printf("%-23s %4d %-23s %12llu %9llu %5d\n",
                        tools::printable(q->qname, sizeof q->qname).c_str(), type,
                        tools::printable(name, sizeof name).c_str(),
                        static_cast<unsigned long long>(counter.count),
                        static_cast<unsigned long long>(counter.ecount),
                        static_cast<int>(counter.ratio));
        }
    }
}

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
    {"types", "Counts by message type, for types whose name contains a text", print_types, true,
     true},
    {"clients", "The processes at each channel", [](const Options &) { q_clientsprint(); }, false,
     true},
    {"log", "One line for a log file", [](const Options &o) { q_statlog(o.mode()); }, true, false},
};

struct Document {
    const char *name, *what;
    int (*write)(char, char *);
    std::string (*escaped)(const std::string &, const qm::SegmentView &);
};
constexpr Document kDocuments[] = {
    {"xml", "An XML document", q_statprint_xml, escaped_xml},
    {"json", "A JSON document of all channels, with absolute counts", q_statprint_json,
     escaped_json},
};

void show_table(const Options &options, const Table &table, int output) {
    Monitor monitor(options.segment);
    monitor.note_start();
    const bool colours = options.wants_colours(output);
    std::string gone_since;
    const auto frame = [&] {
        std::string fault = monitor.refresh();
        if (fault.empty()) {
            if (!std::exchange(gone_since, {}).empty()) monitor.note_start();
            try {
                return for_terminal(monitor.printed([&] { table.print(options); }), colours);
            } catch (const qm::Error &error) { // it went just now
                fault = error.what();
            }
        }
        if (gone_since.empty()) gone_since = tools::local_time(std::time(nullptr), "%H:%M:%S");
        return fault + "\nSince " + gone_since + "; waiting for a segment.\n";
    };
    if (table.has_rates) monitor.measure(options.sample);
    if (tools::stop_signal()) return;
    if (options.watch > 0)
        watch({output, options.watch, options.utf8, table.in_place, frame});
    else
        write_out(output, "standard output", options.in_charset(frame()));
}

void show_document(const Options &options, const Document &document, int output) {
    options.once();
    const Monitor monitor(options.segment);
    const qm::SegmentView view{qm::Keys(options.segment.key_file)};
    const std::string text =
        document.escaped(monitor.document(document.write, options.mode()), view) + "\n";
    write_out(output, "standard output", options.document_utf8 ? tools::to_utf8(text) : text);
}

} // namespace

bool Options::wants_colours(int descriptor) const {
    if (colour != "auto") return colour == "always";
    const char *none = std::getenv("NO_COLOR");
    return tools::obeys_escapes(descriptor) && !(none && *none);
}

void show_first_table(const Options &options, int output) {
    show_table(options, kTables[0], output);
}

void add_views(const tools::Program &program, Options &options, Work &work) {
    for (const Table &table : kTables) {
        const tools::Command command = program.command(table.name, table.what);
        if (table.print == print_types)
            command.option("TEXT", options.needle,
                           "Text to look for; without it a row for each type that was counted");
        command.when_chosen(
            [&] { work = [&](int output) { show_table(options, table, output); }; });
    }
    for (const Document &document : kDocuments)
        program.command(document.name, document.what).when_chosen([&] {
            work = [&](int output) { show_document(options, document, output); };
        });
}

} // namespace halvo::mon
