// halvo-recv: writes the messages of a channel to a file or to standard output, one a line.
//
// Messages are marked, written out and only then released, so that none is lost when this program
// dies: the next reader gets what was not released again.
#include <fcntl.h>

#include <algorithm>

#include "tools/frame/command_line.h"
#include "tools/frame/program.h"

using namespace halvo::tools;

namespace {

struct Options {
    std::string key_file, channel, output = "-", client = "halvo-recv";
    uint64_t count = 0; // 0: no end
    int idle = -1;      // ms, below 0: no end
    int batch = 64;
    int timeout = 10000;
    bool keep_newline = false, quiet = false;
};

// Longest single wait, so that a signal which comes between two waits is noticed soon.
constexpr int kWaitMilliseconds = 500;

// The file is emptied only by the one that has the channel's end: it may hold what another receiver,
// who is still at it, has already released.
class Receiver {
public:
    Receiver(const Options &options, int standard_output, Progress &progress)
        : options_(options), progress_(progress),
          end_(options.key_file, options.channel, 'r', options.client, options.timeout),
          output_(options.output, O_WRONLY | O_CREAT | O_TRUNC, standard_output) {}
    ~Receiver() { frx_readRollback(end_.handle()); }

    void run() {
        int quiet_for = 0; // ms
        while (!stop_signal() && !(options_.count && progress_.messages() >= options_.count)) {
            int wait = kWaitMilliseconds;
            if (options_.idle >= 0) wait = std::min(wait, options_.idle - quiet_for);
            const int marked = frx_readMark(end_.handle(), wanted(), wait);
            if (marked > 0) {
                pass_on(marked);
                quiet_for = 0;
            } else if (marked == 0) {
                quiet_for += wait;
                if (options_.idle >= 0 && quiet_for >= options_.idle) return;
            } else if (marked != ESMS_JAVAINTR) {
                throw ToolError(kFailed, options_.channel + ": " + result_text(marked));
            }
        }
    }

private:
    int wanted() const {
        if (options_.count == 0) return options_.batch;
        const uint64_t left = options_.count - progress_.messages();
        return static_cast<int>(std::min<uint64_t>(left, static_cast<uint64_t>(options_.batch)));
    }

    void pass_on(int marked) {
        text_.clear();
        uint64_t bytes = 0;
        for (int i = 0; i < marked; ++i) {
            const qmsg *slot = nullptr;
            const int length = frx_peekMarked(end_.handle(), i, &slot);
            if (length < 0) throw ToolError(kFailed, options_.channel + ": " + result_text(length));
            text_.append(reinterpret_cast<const char *>(slot) + offsetof(qmsg, data),
                         static_cast<size_t>(length));
            if (!options_.keep_newline) text_ += '\n';
            bytes += static_cast<uint64_t>(length);
        }
        write_out(output_.descriptor(), options_.output, text_);
        const int released = frx_readCommit(end_.handle(), marked);
        if (released != marked)
            throw ToolError(kFailed, options_.channel + ": released " + std::to_string(released) +
                                         " of " + std::to_string(marked) + " messages");
        progress_.add(static_cast<uint64_t>(marked), bytes);
    }

    const Options &options_;
    Progress &progress_;
    OpenEnd end_;
    const NamedFile output_;
    std::string text_;
};

constexpr char kWhat[] =
    "Writes the messages of a channel to standard output or to a file, one a line,\n"
    "until it is stopped (Ctrl-C), or as --count and --idle say.\n"
    "\nExample: halvo-recv --key /run/gateway.key MT01 --idle 2000 --output got.txt";

constexpr char kFooter[] =
    "Exit status: 0 ended as asked or by a signal, 1 failure, 2 wrong usage or no such\n"
    "channel, 128 + signal when that came before it had the channel's end. A message is\n"
    "released only when it has been written out.";

} // namespace

int main(int argc, char **argv) {
    Options options;
    const Program program({.name = "halvo-recv", .what = kWhat, .footer = kFooter});
    program.option("channel", options.channel, "Name of the channel").required();
    program.option("-k,--key", options.key_file, "Key file of the segment").required();
    program.option("-o,--output", options.output, "File to write; - is standard output")
        .show_default();
    program.option("-c,--count", options.count, "End after this many messages; 0 is no end")
        .check(at_least_zero)
        .show_default();
    program.option("-i,--idle", options.idle, "End when nothing came for this many ms")
        .check(at_least_zero);
    program.option("-b,--batch", options.batch, "Messages written out and released together")
        .range(1, 1000000)
        .show_default();
    program.option("--timeout", options.timeout, "Longest wait for the channel's reader end, in ms")
        .check(at_least_zero)
        .show_default();
    program.option("--name", options.client, "Name to show as the reader").show_default();
    program.flag("-n,--keep-newline", options.keep_newline,
                 "Messages hold their line feeds: add none");
    program.flag("-q,--quiet", options.quiet, "No progress and no summary");
    if (const auto ended = program.parse(argc, argv)) return *ended;
    return run_tool("halvo-recv", "messages", options.quiet,
                    [&](int standard_output, Progress &progress) {
                        Receiver(options, standard_output, progress).run();
                    });
}
