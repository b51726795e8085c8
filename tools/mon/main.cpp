// halvo-mon: shows the status of a segment, once or again and again, to people and to programs.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "tools/frame/program.h"
#include "tools/mon/options.h"

using namespace halvo::mon;
using halvo::tools::kDone;
using halvo::tools::kUsage;

namespace {

void add_general(CLI::App &app, Options &options) {
    app.add_option("-k,--key", options.segment.key_file,
                   "Key file of the segment; all but records need it");
    app.add_option("-f,--options", options.segment.options_file,
                   "File that chooses, orders, indents and colours channels");
    CLI::Option *file = app.add_option(
        "-s,--snapshot", options.segment.snapshot_file,
        "File of counts to count from: loaded, or taken now and saved when there is none");
    app.add_flag("--take", options.segment.take, "Take the snapshot anew")->needs(file);
    app.add_flag("-a,--active", options.active,
                 "Only channels with activity in the last seconds; counts are absolute");
    CLI::Option *utf8 = app.add_flag(
        "--utf8,!--no-utf8", options.utf8,
        "Write UTF-8, or EUC-KR as the library does (default: as the locale; documents UTF-8)");
    app.parse_complete_callback(
        [&options, utf8] { options.document_utf8 = utf8->count() == 0 || options.utf8; });
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
                   "Measure rates over so long, before the first table too; 0: no rates in it")
        ->check(CLI::Range(0.0, 3600.0))
        ->type_name("SECONDS")
        ->capture_default_str();
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

// The general options stand behind a command's own.
class WholeHelp : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override {
        std::string help = CLI::Formatter::make_help(app, std::move(name), mode);
        if (app->get_parent()) help += "\nWith any command:" + make_groups(app->get_parent(), mode);
        return help;
    }
};

int end(const CLI::App &app, const CLI::ParseError &error) {
    if (!app.got_subcommand("check") || error.get_exit_code() == 0)
        return app.exit(error) == 0 ? kDone : kUsage;
    std::puts(unknown(error.what()).line.c_str());
    return static_cast<int>(Health::unknown);
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    Work work = [&](int output) { show_first_table(options, output); };
    CLI::App app("Shows the status of a queue segment: as tables, documents, log lines, metrics.",
                 "halvo-mon");
    app.formatter(std::make_shared<WholeHelp>());
    app.set_version_flag("--version", "halvo-mon " HALVOIPC_VERSION);
    app.footer(kFooter);
    app.fallthrough();
    app.require_subcommand(0, 1);
    add_general(app, options);
    add_timing(app, options);
    add_live(app, options, work);
    add_views(app, options, work);
    add_machines(app, options, work);
    add_serve(app, options, work);
    try {
        app.parse(argc, argv);
        if (options.needs_key && options.segment.key_file.empty())
            throw CLI::RequiredError("--key");
    } catch (const CLI::ParseError &error) {
        return end(app, error);
    }
    const int status = halvo::tools::run_tool(
        "halvo-mon", "", true, [&](int output, halvo::tools::Progress &) { work(output); });
    if (status != kDone && options.answers_as_plugin) return static_cast<int>(Health::unknown);
    return status != kDone ? status : options.exit_status;
}
