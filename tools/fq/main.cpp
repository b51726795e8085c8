// halvo-fq: puts lines into a file queue, gets them out, and tells what is in it.
#include "halvo/fq.h"
#include "tools/fq/commands.h"
#include "tools/frame/command_line.h"

using namespace halvo::tools;

namespace {

constexpr char kWhat[] =
    "Puts lines into a file queue, gets them out, and tells what is in it.\n\n"
    "A queue is named by a path: its files are PATH.000000000, PATH.tail and so on.\n\n"
    "Examples:\n"
    "  halvo-fq put /var/q/mo messages.txt --batch 100\n"
    "  halvo-fq get /var/q/mo --follow\n"
    "  halvo-fq peek /var/q/mo --max 10\n"
    "  halvo-fq stat /var/q/mo --json\n"
    "  halvo-fq verify /var/q/mo && echo sound";

constexpr char kFooter[] =
    "Exit status: 0 done, 1 failed or damaged items found, 2 wrong usage or no such file\n"
    "or queue, 128 + signal when put was stopped. peek, stat, verify and dump change\n"
    "nothing.";

using Work = void (*)(const Options &, int, Progress &);

// The command line: each command leaves in `chosen` what is to be done.
class CommandLine {
public:
    CommandLine(const Program &program, Options &options) : program_(program), options_(options) {
        const Command put_it = command("put", "Put every line of a file as an item", put);
        lines(put_it);
        durable(put_it);
        put_it.option("file", options.file, "File to put; - is standard input").show_default();
        put_it
            .option("-b,--batch", options.batch,
                    "Items that become readable together, or not at all")
            .range(1, 1000000)
            .show_default();
        const Command get_them = command("get", "Get items, one a line", get);
        lines(get_them);
        durable(get_them);
        most(get_them);
        get_them
            .option("--max-bytes", options.most_bytes,
                    "End when so many bytes of data have come; 0 is no end")
            .check(at_least_zero);
        get_them.flag("-f,--follow", options.follow, "Wait for more until stopped (Ctrl-C)");
        get_them.option("-o,--output", options.output, "File to write; - is standard output")
            .show_default();
        const Command peek_at =
            command("peek", "Show the items that wait, and leave them there", peek);
        lines(peek_at);
        most(peek_at);
        report("stat", "Tell positions, backlog, files and uncommitted tail", halvo::tools::stat);
        report("verify", "Look for damaged items in all files", verify);
        report("dump", "Show everything in all data files, whatever its state", dump);
    }
    Work chosen = nullptr;

private:
    Command command(const char *name, const char *what, Work work) {
        Command sub = program_.command(name, what);
        sub.option("queue", options_.queue, "Path that names the queue").required();
        sub.when_chosen([this, work] { chosen = work; });
        return sub;
    }
    void lines(const Command &sub) {
        sub.flag("-n,--keep-newline", options_.keep_newline,
                 "Items hold their line feeds, so that empty lines are items too");
        sub.flag("-q,--quiet", options_.quiet, "No progress and no summary");
    }
    void most(const Command &sub) {
        sub.option("-m,--max", options_.most, "End after this many items; 0 is no end")
            .check(at_least_zero)
            .show_default();
    }
    void durable(const Command &sub) {
        sub.flag("--durable", options_.durable,
                 "What is done survives a loss of power (each transaction waits for the disk)");
    }
    void report(const char *name, const char *what, Work work) {
        const Command sub = command(name, what, work);
        sub.flag("--json", options_.json, "One JSON document");
        sub.when_chosen([this, work] {
            options_.quiet = true;
            chosen = work;
        });
    }

    const Program &program_;
    Options &options_;
};

} // namespace

int main(int argc, char **argv) {
    Options options;
    const Program program(
        {.name = "halvo-fq", .what = kWhat, .footer = kFooter, .commands = About::one_command});
    CommandLine line(program, options);
    if (const auto ended = program.parse(argc, argv)) return *ended;
    if (options.durable) fq_set_durability(FQ_DURABILITY_COMMIT);
    return run_tool("halvo-fq", "items", options.quiet,
                    [&](int out, Progress &progress) { line.chosen(options, out, progress); });
}
