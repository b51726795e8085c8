// halvo-fq get: items one a line, consumed once they have been written out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "tools/fq/commands.h"
#include "tools/fq/files.h"
#include "tools/fq/report.h"

namespace halvo::tools {

namespace {

constexpr useconds_t kFollowPause = 100000; // microseconds between looks at an empty queue

// A transaction ends after so many items or bytes, or when it has left the file where it began.
constexpr uint64_t kBatchItems = 256;
constexpr uint64_t kBatchBytes = uint64_t{1} << 20;

class Getter {
public:
    Getter(const Options &options, int output, Progress &progress)
        : options_(options), output_(output), progress_(progress) {}

    // One transaction. False when there is nothing to read.
    bool get_some() {
        text_.clear();
        items_ = taken_ = 0;
        fqtrans trans{};
        if (first(trans) <= 0) return false;
        try {
            while (take(trans) && next(trans) > 0) {
            }
            write_out(output_, options_.output, text_);
        } catch (const ToolError &) {
            fq_dequeue_rollback(kNoChannel, &trans);
            throw;
        }
        const fq::Position began = fq::position_in(trans.startpos),
                           ended = fq::position_in(trans.nextpos);
        const int result = fq_dequeue_commit(kNoChannel, &trans);
        if (result < 0) fail("commit", result, options_.queue);
        progress_.add(items_, taken_);
        bytes_ += taken_;
        must_have_moved(began);
        remove_consumed(options_.queue, began.order, ended.order);
        return true;
    }

    bool done() const {
        return (options_.most && progress_.messages() >= options_.most) ||
               (options_.most_bytes && bytes_ >= options_.most_bytes);
    }

private:
    // Begins a transaction; grows the room for an item that does not fit.
    int first(fqtrans &trans) {
        for (;;) {
            const int result =
                fq_dequeue(kNoChannel, options_.queue.c_str(), buffer(), room_, &trans);
            if (result >= 0) return result;
            if (stop_signal()) return 0; // it ended the wait for another reader
            if (result != fq::kTooLarge) fail("dequeue", result, options_.queue);
            fq::ItemHeader header;
            std::memcpy(&header, item_.data(), sizeof header);
            room_ = header.length;
            check_room(trans);
        }
    }

    int next(fqtrans &trans) {
        return fq_dequeue_next(kNoChannel, options_.queue.c_str(), &trans, buffer(), room_);
    }

    // A damaged length is told from that of a large item before memory is asked for.
    void check_room(const fqtrans &trans) const {
        const fq::Position at = fq::position_in(trans.curpos);
        const fq::FileName name = fq::data_file(trans.path, at.order);
        struct stat file {};
        if (::stat(name.text, &file) == 0 && room_ <= file.st_size - at.offset) return;
        throw ToolError(kFailed, std::string(name.text) + ": damaged at offset " +
                                     std::to_string(at.offset) + ": an item of " +
                                     std::to_string(room_) + " bytes would not fit the file");
    }

    // Adds the item read; true while the transaction may take another one.
    bool take(const fqtrans &trans) {
        const auto length = static_cast<size_t>(trans.itemlen);
        if (length > kBatchBytes) {
            write_out(output_, options_.output, text_);
            text_.clear();
            item_.resize(fq::kHeaderSize + length);
            if (!options_.keep_newline) item_ += '\n';
            write_out(output_, options_.output, item_.erase(0, fq::kHeaderSize));
        } else {
            text_.append(item_, fq::kHeaderSize, length);
            if (!options_.keep_newline) text_ += '\n';
        }
        taken_ += length;
        ++items_;
        const uint64_t left = options_.most ? options_.most - progress_.messages() : UINT64_MAX;
        const uint64_t room =
            options_.most_bytes ? std::min(options_.most_bytes - bytes_, kBatchBytes) : kBatchBytes;
        const bool same_file =
            fq::position_in(trans.startpos).order == fq::position_in(trans.nextpos).order;
        return items_ < std::min(left, kBatchItems) && taken_ < room && same_file && !stop_signal();
    }

    // The commit answers success when it could not save the position: the same items would come
    // for ever.
    void must_have_moved(const fq::Position &began) const {
        const SavedPosition saved = saved_position(options_.queue, 'r');
        if (saved.found && (saved.at.order != began.order || saved.at.offset != began.offset))
            return;
        throw ToolError(kFailed, options_.queue + ".head: the position could not be saved; the " +
                                     std::to_string(items_) +
                                     " items written out last will come again" +
                                     room_text(options_.queue));
    }

    char *buffer() {
        try {
            item_.resize(size_t{room_} + FQ_ITEM_EXTRA);
        } catch (const std::bad_alloc &) {
            throw ToolError(kFailed,
                            "no memory for an item of " + std::to_string(room_) + " bytes");
        }
        return item_.data();
    }

    const Options &options_;
    int output_;
    Progress &progress_;
    uint32_t room_ = 65536;
    std::string item_, text_;
    uint64_t items_ = 0, taken_ = 0; // of this transaction
    uint64_t bytes_ = 0;             // of all before
};

} // namespace

void get(const Options &options, int standard_output, Progress &progress) {
    need_queue(options.queue);
    need_side(options.queue, 'r');
    const NamedFile output(options.output, O_WRONLY | O_CREAT | O_TRUNC, standard_output);
    Getter getter(options, output.descriptor(), progress);
    while (!stop_signal() && !getter.done()) {
        if (getter.get_some()) continue;
        if (const std::string fault = obstacle(options.queue); !fault.empty())
            throw ToolError(kFailed, options.queue + ": damaged: " + fault);
        if (!options.follow) return;
        usleep(kFollowPause);
    }
}

} // namespace halvo::tools
