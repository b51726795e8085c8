// halvo-mon: shows the status of a segment, once or again and again, to people and to programs.
#include "tools/frame/command_line.h"
#include "tools/frame/program.h"
#include "tools/mon/options.h"

using namespace halvo::mon;
using namespace halvo::tools;

namespace {

void add_general(const Program &program, Options &options) {
    program.option("-k,--key", options.segment.key_file,
                   "Key file of the segment; all but records need it");
    program.option("-f,--options", options.segment.options_file,
                   "File that chooses, orders, indents and colours channels");
    const Option file = program.option(
        "-s,--snapshot", options.segment.snapshot_file,
        "File of counts to count from: loaded, or taken now and saved when there is none");
    program.flag("--take", options.segment.take, "Take the snapshot anew").needs(file);
    program.flag("-a,--active", options.active,
                 "Only channels with activity in the last seconds; counts are absolute");
    const Option utf8 = program.flag(
        "--utf8,!--no-utf8", options.utf8,
        "Write UTF-8, or EUC-KR as the library does (default: as the locale; documents UTF-8)");
    program.option("--color", options.colour, "auto: on a terminal, without NO_COLOR")
        .one_of({"auto", "always", "never"})
        .show_default();
    program.when_chosen([&options, utf8] {
        if (options.needs_key && options.segment.key_file.empty())
            throw WrongUsage("--key is required");
        options.document_utf8 = !utf8.given() || options.utf8;
    });
}

void add_timing(const Program &program, Options &options) {
    program
        .option("-w,--watch", options.watch,
                "Show a table again every so many seconds, or add a log line; q ends it")
        .range(0.1, 86400.0)
        .type_name("SECONDS");
    program
        .option("--sample", options.sample,
                "Measure rates over so long, before the first table too; 0: no rates in it")
        .range(0.0, 3600.0)
        .type_name("SECONDS")
        .show_default();
}

constexpr char kFooter[] =
    "Exit status: 0 done, also when watching was ended; 1 failed; 2 wrong usage, or no such "
    "segment\n"
    "or file. check: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.\n\n"
    "Examples:\n"
    "  halvo-mon top --key /tmp/halvo.key\n"
    "  halvo-mon record /var/lib/halvo/night.rec --every 10s --key /tmp/halvo.key\n"
    "  halvo-mon top --from /var/lib/halvo/night.rec --at 02:30\n"
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
    Work work = [&](int output) { show_first_table(options, output); };
    const Program program(
        {.name = "halvo-mon",
         .what = "Shows the status of a queue segment: as tables, documents, log lines, metrics.",
         .footer = kFooter,
         .commands = About::one_or_no_command,
         .options_with_any_command = true});
    add_general(program, options);
    add_timing(program, options);
    add_live(program, options, work);
    add_views(program, options, work);
    add_machines(program, options, work);
    add_serve(program, options, work);
    if (const auto ended = program.parse(argc, argv)) return *ended;
    const int status =
        run_tool("halvo-mon", "", true, [&](int output, Progress &) { work(output); });
    if (status != kDone && options.answers_as_plugin) return static_cast<int>(Health::unknown);
    return status != kDone ? status : options.exit_status;
}
