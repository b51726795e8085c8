// halvo-fq: puts lines into a file queue, gets them out, and tells what is in it.
#include <CLI/CLI.hpp>

#include "halvo/fq.h"
#include "tools/fq/commands.h"

using namespace halvo::tools;

namespace {

using Command = void (*)(const Options &, int, Progress &);

// The command line: each command leaves in `chosen` what is to be done.
class CommandLine {
public:
    CommandLine(CLI::App &app, Options &options) : app_(app), options_(options) {
        CLI::App *put_it = command("put", "Put every line of a file as an item", put);
        lines(put_it);
        durable(put_it);
        put_it->add_option("file", options.file, "File to put; - is standard input")
            ->capture_default_str();
        put_it
            ->add_option("-b,--batch", options.batch,
                         "Items that become readable together, or not at all")
            ->check(CLI::Range(1, 1000000))
            ->capture_default_str();
        CLI::App *get_them = command("get", "Get items, one a line", get);
        lines(get_them);
        durable(get_them);
        most(get_them);
        get_them->add_option("--max-bytes", options.most_bytes,
                             "End when so many bytes of data have come; 0 is no end");
        get_them->add_flag("-f,--follow", options.follow, "Wait for more until stopped (Ctrl-C)");
        get_them->add_option("-o,--output", options.output, "File to write; - is standard output")
            ->capture_default_str();
        CLI::App *peek_at = command("peek", "Show the items that wait, and leave them there", peek);
        lines(peek_at);
        most(peek_at);
        report("stat", "Tell positions, backlog, files and uncommitted tail", stat);
        report("verify", "Look for damaged items in all files", verify);
        report("dump", "Show everything in all data files, whatever its state", dump);
    }
    Command chosen = nullptr;

private:
    CLI::App *command(const char *name, const char *what, Command work) {
        CLI::App *sub = app_.add_subcommand(name, what);
        sub->add_option("queue", options_.queue, "Path that names the queue")->required();
        sub->callback([this, work] { chosen = work; });
        return sub;
    }
    void lines(CLI::App *sub) {
        sub->add_flag("-n,--keep-newline", options_.keep_newline,
                      "Items hold their line feeds, so that empty lines are items too");
        sub->add_flag("-q,--quiet", options_.quiet, "No progress and no summary");
    }
    void most(CLI::App *sub) {
        sub->add_option("-m,--max", options_.most, "End after this many items; 0 is no end")
            ->capture_default_str();
    }
    void durable(CLI::App *sub) {
        sub->add_flag(
            "--durable", options_.durable,
            "What is done survives a loss of power (each transaction waits for the disk)");
    }
    void report(const char *name, const char *what, Command work) {
        CLI::App *sub = command(name, what, work);
        sub->add_flag("--json", options_.json, "One JSON document");
        sub->callback([this, work] {
            options_.quiet = true;
            chosen = work;
        });
    }

    CLI::App &app_;
    Options &options_;
};

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app(
        "Puts lines into a file queue, gets them out, and tells what is in it.\n\n"
        "A queue is named by a path: its files are PATH.000000000, PATH.tail and so on.\n\n"
        "Examples:\n"
        "  halvo-fq put /var/q/mo messages.txt --batch 100\n"
        "  halvo-fq get /var/q/mo --follow\n"
        "  halvo-fq peek /var/q/mo --max 10\n"
        "  halvo-fq stat /var/q/mo --json\n"
        "  halvo-fq verify /var/q/mo && echo sound");
    app.set_version_flag("--version", "halvo-fq " HALVOIPC_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 done, 1 failed or damaged items found, 2 wrong usage or no such file\n"
        "or queue, 128 + signal when put was stopped. peek, stat, verify and dump change\n"
        "nothing.");
    CommandLine line(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    if (options.durable) fq_set_durability(FQ_DURABILITY_COMMIT);
    return run_tool("halvo-fq", "items", options.quiet,
                    [&](int out, Progress &progress) { line.chosen(options, out, progress); });
}
