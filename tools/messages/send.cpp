// halvo-send: every line of a file or of standard input becomes one message of a channel.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "halvo/queue.h"
#include "tools/frame/command_line.h"
#include "tools/frame/line_reader.h"
#include "tools/frame/program.h"

using namespace halvo::tools;

namespace {

struct Options {
    std::string key_file, channel, input = "-", client = "halvo-send";
    int type = 1, timeout = 10000;
    uint32_t batch = 1;
    bool keep_newline = false, quiet = false;
};

// Longest single wait, so that a signal which comes between two waits is noticed soon.
constexpr int kWaitMilliseconds = 500;

class Sender {
public:
    Sender(const Options &options, Progress &progress)
        : options_(options), progress_(progress),
          end_(options.key_file, options.channel, 'w', options.client, options.timeout),
          batch_(end_.header()->pbuffs != 0 ? 1 : options.batch) {}
    ~Sender() { q_write_rollback_all(end_.header()); }

    void send(const std::string &body) {
        const auto length = static_cast<uint32_t>(body.size());
        if (length > end_.longest_message())
            throw ToolError(kFailed, result_text(ESMS_EXEED) + ": " + std::to_string(length) +
                                         " bytes, the channel takes " +
                                         std::to_string(end_.longest_message()));
        if (batch_ == 1) {
            check(wait([&](int ms) {
                return frx_write(end_.handle(), options_.type, body.data(), length, ms);
            }));
            progress_.add(1, length);
        } else {
            mark(body, length);
        }
    }

    // Makes the messages of an unfinished batch readable.
    void commit() {
        if (marked_ == 0) return;
        check(q_write_commit_all(end_.header()));
        sem_postx(end_.handle()->channel);
        progress_.add(marked_, marked_bytes_);
        marked_ = 0;
        marked_bytes_ = 0;
    }

private:
    // Adds a message to the batch. A ring without room for the rest of the batch gets what there is.
    void mark(const std::string &body, uint32_t length) {
        if (marked_ > 0) {
            const int result =
                q_write_mark_at(end_.header(), options_.type, body.data(), length, marked_);
            if (result != ESMS_OK) commit();
            if (result != ESMS_OK && result != ESMS_FULL && result != ESMS_INVAL) check(result);
            if (result == ESMS_OK) return count_mark(length);
        }
        check(wait([&](int ms) {
            return frx_writeMark(end_.handle(), options_.type, body.data(), length, ms);
        }));
        count_mark(length);
    }

    void count_mark(uint32_t length) {
        marked_bytes_ += length;
        if (++marked_ == batch_) commit();
    }

    template <class Call>
    int wait(Call call) {
        for (int left = options_.timeout;;) {
            const int slice = std::min(left, kWaitMilliseconds);
            const int result = call(slice);
            if (result != ESMS_TIMEOUT && result != ESMS_JAVAINTR) return result;
            if (stop_signal()) return ESMS_JAVAINTR;
            left -= slice;
            if (left <= 0) return result;
        }
    }

    void check(int result) {
        if (result == ESMS_JAVAINTR && stop_signal())
            throw ToolError(128 + stop_signal(), "stopped by a signal");
        if (result == ESMS_TIMEOUT)
            throw ToolError(kFailed, result_text(result) + ": the channel stayed full" +
                                         "; halvo-qm list shows whether anybody reads it");
        if (result < 0) throw ToolError(kFailed, result_text(result));
    }

    const Options &options_;
    Progress &progress_;
    OpenEnd end_;
    // Messages that an earlier writer has parked keep their slots, and a batch cannot pass over them.
    const uint32_t batch_;
    uint32_t marked_ = 0;
    uint64_t marked_bytes_ = 0;
};

void run(const Options &options, Progress &progress) {
    const NamedFile input(options.input, O_RDONLY, STDIN_FILENO);
    LineReader lines(input.descriptor());
    Sender sender(options, progress);
    const uint64_t empty = for_each_line(
        lines, options.input, options.keep_newline,
        [&](const std::string &line) { sender.send(line); }, [&] { sender.commit(); });
    if (empty > 0 && !options.quiet)
        std::fprintf(stderr, "halvo-send: %llu empty lines skipped; --keep-newline sends them\n",
                     static_cast<unsigned long long>(empty));
}

constexpr char kWhat[] =
    "Sends every line of a file, or of standard input, as one message of a channel.\n"
    "\nExample: halvo-send --key /run/gateway.key MT01 messages.txt";

constexpr char kFooter[] =
    "Exit status: 0 all sent, 1 a message could not be sent, 2 wrong usage or no such\n"
    "channel, 128 + signal when stopped. What was counted as sent stays sent.";

} // namespace

int main(int argc, char **argv) {
    Options options;
    const Program program({.name = "halvo-send", .what = kWhat, .footer = kFooter});
    program.option("channel", options.channel, "Name of the channel").required();
    program.option("file", options.input, "File to send; - is standard input").show_default();
    program.option("-k,--key", options.key_file, "Key file of the segment").required();
    program.option("-t,--type", options.type, "Message type").range(0, 65535).show_default();
    program
        .option("-b,--batch", options.batch,
                "Messages that become readable together; fewer while the ring lacks room")
        .range(1, 1000000)
        .show_default();
    program.option("--timeout", options.timeout, "Longest wait for room or for the channel, in ms")
        .check(at_least_zero)
        .show_default();
    program.option("--name", options.client, "Name to show as the writer").show_default();
    program.flag("-n,--keep-newline", options.keep_newline,
                 "Send lines with their line feed, and empty lines too");
    program.flag("-q,--quiet", options.quiet, "No progress and no summary");
    if (const auto ended = program.parse(argc, argv)) return *ended;
    return run_tool("halvo-send", "messages", options.quiet,
                    [&](int, Progress &progress) { run(options, progress); });
}
