// halvo-fq: puts lines into a file queue, gets them out, and tells what is in it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "core/posix.h"
#include "fq/format.h"
#include "tools/fq/report.h"
#include "tools/frame/line_reader.h"
#include "tools/frame/program.h"

using namespace halvo::tools;

namespace {

constexpr int kNoChannel = -1;
constexpr useconds_t kFollowPause = 100000; // microseconds between looks at an empty queue

struct Options {
    std::string queue, file = "-", output = "-";
    uint32_t batch = 1;
    uint64_t most = 0; // 0: no end
    bool follow = false, keep_newline = false, json = false, quiet = false;
};

[[noreturn]] void fail(const std::string &what, int result) {
    if (stop_signal()) throw ToolError(128 + stop_signal(), "stopped by a signal");
    throw ToolError(kFailed, what + " failed with " + std::to_string(result));
}

// Items of one transaction become readable together.
class Putter {
public:
    Putter(const Options &options, Progress &progress) : options_(options), progress_(progress) {}
    ~Putter() {
        if (open_) fq_enqueue_rollback(kNoChannel, &trans_);
    }

    void put(const std::string &item) {
        const auto length = static_cast<unsigned>(item.size());
        if (options_.batch == 1) {
            const int result =
                fq_enqueue_away(kNoChannel, -1, 1, options_.queue.c_str(), item.data(), length);
            if (result != 0) fail("enqueue", result);
            progress_.add(1, length);
            return;
        }
        const int result =
            open_ ? fq_enqueue_next(kNoChannel, item.data(), length, &trans_)
                  : fq_enqueue(kNoChannel, options_.queue.c_str(), item.data(), length, &trans_);
        open_ = result > 0; // a failure has ended the transaction
        if (!open_) fail("enqueue", result);
        bytes_ += length;
        if (++items_ == options_.batch) commit();
    }

    void commit() {
        if (!open_) return;
        open_ = false;
        const int result = fq_enqueue_commit(kNoChannel, &trans_);
        if (result < 0) fail("commit", result);
        progress_.add(items_, bytes_);
        items_ = bytes_ = 0;
    }

private:
    const Options &options_;
    Progress &progress_;
    fqtrans trans_{};
    bool open_ = false;
    uint64_t items_ = 0, bytes_ = 0;
};

void put(const Options &options, Progress &progress) {
    halvo::Descriptor file;
    if (options.file != "-") {
        file = halvo::open_file(options.file.c_str(), O_RDONLY);
        if (!file) throw ToolError(kUsage, options.file + ": " + std::strerror(errno));
    }
    LineReader lines(file ? file.get() : STDIN_FILENO);
    Putter putter(options, progress);
    const uint64_t empty = for_each_line(
        lines, options.file, options.keep_newline,
        [&](const std::string &line) { putter.put(line); }, [&] { putter.commit(); });
    if (empty > 0 && !options.quiet)
        std::fprintf(stderr, "halvo-fq: %llu empty lines skipped; --keep-newline puts them\n",
                     static_cast<unsigned long long>(empty));
}

// Reads transactions of at most `batch` items; each is committed once it is written out.
class Getter {
public:
    Getter(const Options &options, int output, Progress &progress)
        : options_(options), output_(output), progress_(progress) {}

    // False when there is nothing to read.
    bool get_some() {
        text_.clear();
        uint64_t items = 0, bytes = 0;
        fqtrans trans{};
        for (int result = first(trans); result > 0 && take(trans, items, bytes);)
            result = fq_dequeue_next(kNoChannel, options_.queue.c_str(), &trans, buffer(), room_);
        if (items == 0) return false;
        try {
            write_out(output_, options_.output, text_);
        } catch (const ToolError &) {
            fq_dequeue_rollback(kNoChannel, &trans);
            throw;
        }
        const int result = fq_dequeue_commit(kNoChannel, &trans);
        if (result < 0) fail("commit", result);
        progress_.add(items, bytes);
        return true;
    }

    bool done() const { return options_.most && progress_.messages() >= options_.most; }

private:
    // Begins a transaction; grows the room for an item that does not fit.
    int first(fqtrans &trans) {
        for (;;) {
            const int result =
                fq_dequeue(kNoChannel, options_.queue.c_str(), buffer(), room_, &trans);
            if (result >= 0) return result;
            if (stop_signal()) return 0; // it ended the wait for another reader
            if (result != kTooLarge) fail("dequeue", result);
            std::memcpy(&room_, item_.data() + kLengthAt, sizeof room_);
            check_room(trans);
        }
    }

    // A damaged length is told from that of a large item before memory is asked for.
    void check_room(const fqtrans &trans) const {
        const halvo::fq::Position at = halvo::fq::position_in(trans.curpos);
        const halvo::fq::FileName name = halvo::fq::data_file(trans.path, at.order);
        struct stat file {};
        if (stat(name.text, &file) == 0 && room_ <= file.st_size - at.offset) return;
        throw ToolError(kFailed, std::string(name.text) + ": damaged at offset " +
                                     std::to_string(at.offset) + ": an item of " +
                                     std::to_string(room_) + " bytes would not fit the file");
    }

    // Adds the item read; true while the transaction may take another one.
    bool take(const fqtrans &trans, uint64_t &items, uint64_t &bytes) {
        const auto length = static_cast<size_t>(trans.itemlen);
        text_.append(item_.data() + kDataAt, length);
        if (!options_.keep_newline) text_ += '\n';
        bytes += length;
        ++items;
        const uint64_t left = options_.most ? options_.most - progress_.messages() : UINT64_MAX;
        return items < std::min<uint64_t>(left, kBatch) && !stop_signal();
    }

    char *buffer() {
        item_.resize(size_t{room_} + FQ_ITEM_EXTRA);
        return item_.data();
    }

    static constexpr uint64_t kBatch = 256;
    static constexpr int kTooLarge = -2;
    static constexpr size_t kLengthAt = 16, kDataAt = 20; // in an item as it lies on disk
    const Options &options_;
    int output_;
    Progress &progress_;
    uint32_t room_ = 65536;
    std::vector<char> item_;
    std::string text_;
};

void get(const Options &options, int standard_output, Progress &progress) {
    halvo::Descriptor file;
    if (options.output != "-") {
        file = halvo::open_file(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
        if (!file) throw ToolError(kUsage, options.output + ": " + std::strerror(errno));
    }
    Getter getter(options, file ? file.get() : standard_output, progress);
    while (!stop_signal() && !getter.done()) {
        if (getter.get_some()) continue;
        if (const std::string fault = obstacle(options.queue); !fault.empty())
            throw ToolError(kFailed, options.queue + ": damaged: " + fault);
        if (!options.follow) return;
        usleep(kFollowPause);
    }
}

void tell(const Options &options, int standard_output) {
    write_out(standard_output, "standard output", stat_report(options.queue, options.json));
}

void verify(const Options &options, int standard_output) {
    bool sound = true;
    const std::string report = verify_report(options.queue, options.json, sound);
    write_out(standard_output, "standard output", report);
    if (!sound) throw ToolError(kFailed, options.queue + ": damaged");
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    std::function<void(int, Progress &)> work;
    CLI::App app(
        "Puts lines into a file queue, gets them out, and tells what is in it.\n\n"
        "A queue is named by a path: its files are PATH.000000000, PATH.tail and so on.\n\n"
        "Examples:\n"
        "  halvo-fq put /var/q/mo messages.txt --batch 100\n"
        "  halvo-fq get /var/q/mo --follow\n"
        "  halvo-fq stat /var/q/mo --json\n"
        "  halvo-fq verify /var/q/mo && echo sound");
    app.set_version_flag("--version", "halvo-fq " HALVOIPC_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 done, 1 failed or damaged items found, 2 wrong usage or no such\n"
               "file, 128 + signal when put was stopped. stat and verify change nothing.");
    const auto command = [&](const char *name, const char *what) {
        CLI::App *sub = app.add_subcommand(name, what);
        sub->add_option("queue", options.queue, "Path that names the queue")->required();
        return sub;
    };
    const auto with_lines = [&](CLI::App *sub) {
        sub->add_flag("-n,--keep-newline", options.keep_newline,
                      "Items hold their line feeds, so that empty lines are items too");
        sub->add_flag("-q,--quiet", options.quiet, "No progress and no summary");
        return sub;
    };
    CLI::App *put_command = with_lines(command("put", "Put every line of a file as an item"));
    put_command->add_option("file", options.file, "File to put; - is standard input")
        ->capture_default_str();
    put_command
        ->add_option("-b,--batch", options.batch,
                     "Items that become readable together, or not at all")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    put_command->callback([&] { work = [&](int, Progress &p) { put(options, p); }; });
    CLI::App *get_command = with_lines(command("get", "Get items, one a line"));
    get_command->add_option("-m,--max", options.most, "End after this many items; 0 is no end")
        ->capture_default_str();
    get_command->add_flag("-f,--follow", options.follow, "Wait for more until stopped (Ctrl-C)");
    get_command->add_option("-o,--output", options.output, "File to write; - is standard output")
        ->capture_default_str();
    get_command->callback([&] { work = [&](int out, Progress &p) { get(options, out, p); }; });
    const auto report = [&](const char *name, const char *what,
                            void (*make)(const Options &, int)) {
        CLI::App *sub = command(name, what);
        sub->add_flag("--json", options.json, "One JSON document");
        sub->callback([&options, &work, make] {
            options.quiet = true;
            work = [&options, make](int out, Progress &) { make(options, out); };
        });
    };
    report("stat", "Tell positions, backlog, files and uncommitted tail", tell);
    report("verify", "Look for damaged items in all files", verify);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return run_tool("halvo-fq", "items", options.quiet, work);
}
