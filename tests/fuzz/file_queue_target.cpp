// Files of a queue with anything in them, then transactions over them.
#include <cstdlib>
#include <ctime>
#include <memory>

#include "fq/files/files.h"
#include "tests/fuzz/attachment.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

using namespace halvo;
using namespace halvo::fq;
using halvo::fuzz::Input;

namespace {

constexpr int kMostOperations = 24;
constexpr int kMostItems = 5000; // more than fit into the files of one input
constexpr uint32_t kOrders[] = {0, 1, 2, 99999999, 100000000, 999999999, 0xFFFFFFFF};
constexpr uint32_t kOffsets[] = {0, 21, 23, 46, 4999999, 5000001, 999999976, 999999999, 0xFFFFFFFF};
constexpr uint32_t kLengths[] = {1, 0, 2, 5, 21, 40, 0x7FFFFFFF, 999999977, 999999978, 0xFFFFFFFF};

const std::string &queue_path() {
    static const std::string path = fuzz::scratch().path("q");
    return path;
}

// The lock files stay: their inodes are the keys of the process's table of mutexes.
void clear_files() {
    Directory files(fuzz::scratch().path().c_str());
    while (const char *name = files.next())
        if (std::strncmp(name, "q.", 2) == 0 && !std::strstr(name, "lk"))
            unlink(fuzz::scratch().path(name).c_str());
}

FileName chosen_file(Input &input) {
    const char *path = queue_path().c_str();
    constexpr int32_t kDataFiles[] = {0, 0, 1, 2, 99999999, 100000000};
    const uint32_t choice = input.below(8);
    if (choice == 0) return head_file(path);
    if (choice == 1) return tail_file(path);
    return data_file(path, kDataFiles[choice - 2]);
}

std::string item_of(Input &input) {
    static constexpr char kStates[] = {kCommitted, kWritten, kEnd, 'x'};
    ItemHeader header{};
    std::memcpy(header.magic, kMagic, kMagicSize);
    header.state = kStates[input.below(4)];
    header.stamp = static_cast<uint32_t>(input.below(2) ? 0 : time(nullptr));
    const std::string data = input.bytes(input.below(64));
    header.length = input.below(4) == 0 ? input.near(kLengths) : static_cast<uint32_t>(data.size());
    return std::string(reinterpret_cast<char *>(&header), kHeaderSize) + data +
           (input.below(4) == 0 ? "zz" : kTrailer);
}

std::string record_of(Input &input) {
    char record[64];
    std::snprintf(record, sizeof record, "%09d %09d %10s\n", static_cast<int>(input.near(kOrders)),
                  static_cast<int>(input.near(kOffsets)), "first");
    return std::string(record).substr(0, input.below(8) == 0 ? input.below(32) : kRecordSize);
}

void add_piece(Input &input) {
    const FileName name = chosen_file(input);
    const Descriptor file = open_queue_file(AT_FDCWD, name, O_WRONLY | O_CREAT | O_APPEND);
    const uint32_t kind = input.below(8);
    if (kind == 0) { // a long file, most of it a hole
        [[maybe_unused]] const int cut = ftruncate(file.get(), input.near(kOffsets) & 0x3FFFFFFF);
        return;
    }
    const std::string piece = kind == 1  ? input.bytes(input.below(64))
                              : kind < 4 ? record_of(input)
                                         : item_of(input);
    if (write(file.get(), piece.data(), piece.size()) < 0) std::abort();
}

// Both sides of the queue, each with the transaction that is open on it.
class Sides {
public:
    explicit Sides(Input &input) : input_(input) {}
    ~Sides() {
        if (writing_) fq_enqueue_rollback(channel_, &writer_);
        if (reading_) fq_dequeue_rollback(channel_, &reader_);
    }

    void operate() {
        const uint32_t call = input_.below(10);
        if (call == 0 && !writing_)
            writing_ = fq_enqueue(channel_, path(), data(), length_, &writer_) > 0;
        if (call == 1 && writing_)
            writing_ = fq_enqueue_next(channel_, data(), length_, &writer_) > 0;
        if (call == 2 && std::exchange(writing_, false)) fq_enqueue_commit(channel_, &writer_);
        if (call == 3 && std::exchange(writing_, false)) fq_enqueue_rollback(channel_, &writer_);
        if (call == 4 && !writing_) fq_enqueue_away(channel_, 1, 0, path(), data(), length_);
        if (call == 5 && !reading_) reading_ = dequeue(input_.byte());
        if (call == 6 && reading_)
            fq_dequeue_next(channel_, path(), &reader_, room(input_.byte()), cap_);
        if (call == 7) reader_.errcnt = input_.byte();
        if (call == 7 && std::exchange(reading_, false)) fq_dequeue_commit(channel_, &reader_);
        if (call == 8 && std::exchange(reading_, false)) fq_dequeue_rollback(channel_, &reader_);
        if (call == 9 && writing_) fq_append_item(path(), &writer_, data(), length_);
    }

    // A reader that takes everything comes to an end.
    void drain() {
        if (reading_) fq_dequeue_rollback(channel_, &reader_);
        for (int items = 0; (reading_ = dequeue(4096)); reading_ = false) {
            if (++items > kMostItems) std::abort();
            fq_dequeue_commit(channel_, &reader_);
        }
    }

private:
    static const char *path() { return queue_path().c_str(); }
    const void *data() {
        static constexpr char kBytes[256] = {'d', 'a', 't', 'a'};
        length_ = input_.byte();
        return kBytes;
    }
    void *room(unsigned cap) {
        cap_ = cap;
        room_.reset(new char[cap + FQ_ITEM_EXTRA]);
        return room_.get();
    }
    bool dequeue(unsigned cap) {
        char *item = static_cast<char *>(room(cap));
        if (fq_dequeue(channel_, path(), item, cap, &reader_) <= 0) return false;
        if (reader_.itemlen < 0 || static_cast<unsigned>(reader_.itemlen) > cap) std::abort();
        return true;
    }

    Input &input_;
    int channel_ = static_cast<int>(input_.below(4)) - 1;
    fqtrans writer_{}, reader_{};
    bool writing_ = false, reading_ = false;
    unsigned length_ = 0, cap_ = 0;
    std::unique_ptr<char[]> room_;
};

} // namespace

void halvo::fuzz::file_queue(const uint8_t *data, size_t size) {
    Input input(data, size);
    clear_files();
    place_segment(sound_size());
    attach();
    for (uint32_t pieces = input.below(16); pieces > 0 && input.more(); --pieces) add_piece(input);
    Sides sides(input);
    for (int i = 0; i < kMostOperations && input.more(); ++i) sides.operate();
    sides.drain();
}
