// halvo-fq put: every line of a file becomes an item.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "halvo/fq.h"
#include "tools/fq/commands.h"
#include "tools/fq/inspect.h"

namespace halvo::tools {

namespace {

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
            if (result != 0) fail("enqueue", result, options_.queue);
            progress_.add(1, length);
            return;
        }
        const int result =
            open_ ? fq_enqueue_next(kNoChannel, item.data(), length, &trans_)
                  : fq_enqueue(kNoChannel, options_.queue.c_str(), item.data(), length, &trans_);
        open_ = result > 0; // a failure has ended the transaction
        if (!open_) fail("enqueue", result, options_.queue);
        bytes_ += length;
        if (++items_ == options_.batch) commit();
    }

    void commit() {
        if (!open_) return;
        open_ = false;
        const int result = fq_enqueue_commit(kNoChannel, &trans_);
        if (result < 0) fail("commit", result, options_.queue);
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

} // namespace

void fail(const std::string &what, int result, const std::string &queue) {
    if (stop_signal()) throw ToolError(128 + stop_signal(), "stopped by a signal");
    throw ToolError(kFailed, what + " failed with " + std::to_string(result) + room_text(queue));
}

void put(const Options &options, int, Progress &progress) {
    const NamedFile file(options.file, O_RDONLY, STDIN_FILENO);
    need_side(options.queue, 'w');
    LineReader lines(file.descriptor());
    Putter putter(options, progress);
    const uint64_t empty = for_each_line(
        lines, options.file, options.keep_newline,
        [&](const std::string &line) { putter.put(line); }, [&] { putter.commit(); });
    if (empty > 0 && !options.quiet)
        std::fprintf(stderr, "halvo-fq: %llu empty lines skipped; --keep-newline puts them\n",
                     static_cast<unsigned long long>(empty));
}

} // namespace halvo::tools
