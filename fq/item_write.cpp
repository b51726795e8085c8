// sms_fq: writing items and making them readable. Three writers share one base and differ in the
// item's state, in the place and in when they end a file.
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "fq/files.h"
#include "fq/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};
using Bytes = std::unique_ptr<char, Free>;

ItemHeader make_header(char state, uint32_t length) {
    ItemHeader header{};
    std::memcpy(header.magic, kMagic, kMagicSize);
    header.state = state;
    header.stamp = static_cast<uint32_t>(time(nullptr));
    header.length = length;
    return header;
}

// The whole item in one piece, so that a single write puts it on disk. Null without memory.
Bytes make_item(char state, const void *data, uint32_t length) {
    Bytes item(static_cast<char *>(std::malloc(size_t{length} + FQ_ITEM_EXTRA)));
    if (!item) return item;
    const ItemHeader header = make_header(state, length);
    std::memcpy(item.get(), &header, kHeaderSize);
    std::memcpy(item.get() + kHeaderSize, data, length);
    std::memcpy(item.get() + kHeaderSize + length, kTrailer, kTrailerSize);
    return item;
}

ssize_t write_end_item(int fd, int64_t at) {
    char item[FQ_ITEM_EXTRA];
    const ItemHeader header = make_header(kEnd, 0);
    std::memcpy(item, &header, kHeaderSize);
    std::memcpy(item + kHeaderSize, kTrailer, kTrailerSize);
    return pwrite(fd, item, sizeof item, at); // O_APPEND writes to the end whatever the offset
}

// What the base writer did.
struct Written {
    int result = -1; // bytes written, or the failure
    Descriptor file; // still open after success
    Position at;     // of curpos
    int64_t end = 0; // file offset behind the item
};

Written write_item(const char *path, fqtrans *trans, const void *data, unsigned len, char state,
                   int open_flags) {
    Written item;
    if (!usable_path(path) || !trans || !data || len == 0 || len > FQ_ITEM_MAX) {
        item.result = ESMS_INVAL;
        return item;
    }
    if (!checked_position(path, trans->curpos, item.at, "fq_write.lseek error ")) return item;
    const bool append = open_flags & O_APPEND;
    const int64_t size = int64_t{len} + FQ_ITEM_EXTRA;
    item.end = item.at.offset + size;
    if (!append && !fits_field(item.end)) {
        std::printf("fq_write_item: file queue %s cannot take %u bytes at offset %d\n", path, len,
                    static_cast<int>(item.at.offset));
        return item;
    }
    const FileName name = data_file(path, item.at.order);
    const Bytes bytes = make_item(state, data, len);
    if (!bytes) {
        std::printf("fq_write_item: no memory for %u bytes\n", len);
        return item;
    }
    item.file = open_queue_file(name, O_WRONLY | O_CREAT | open_flags);
    if (!item.file) {
        std::printf("fq_write_item.open error %s\n", name.text);
        return item;
    }
    const int fd = item.file.get();
    const ssize_t written =
        append ? write(fd, bytes.get(), static_cast<size_t>(size))
               : pwrite(fd, bytes.get(), static_cast<size_t>(size), item.at.offset);
    if (written != size) {
        if (!append && written < 0 && seek_fails(fd, item.at.offset))
            std::puts("fq_write.lseek error ");
        else
            std::printf("fq_write_item.write error %s %ld != %ld\n", name.text,
                        static_cast<long>(size), static_cast<long>(written));
        return item;
    }
    if (append) item.end = lseek(fd, 0, SEEK_CUR);
    trans->itemlen = static_cast<int>(len);
    std::memcpy(trans->nextpos, trans->curpos, kRecordSize);
    item.result = static_cast<int>(size);
    return item;
}

// Puts an end item behind an item that passed the limit; nextpos becomes the start of the file
// `next_order`.
int end_file(const char *path, fqtrans *trans, const Written &item, int32_t next_order) {
    // The end item's own write is not checked; a reader that finds none goes on when the next file
    // is there.
    write_end_item(item.file.get(), item.end);
    return move_position(path, trans->nextpos, next_order, 0) ? item.result : -1;
}

// Turns the item at an offset readable. 0, or -1 after a line.
int flip(int fd, int64_t item) {
    const int64_t at = item + kStateOffset;
    if (pwrite(fd, &kCommitted, 1, at) == 1) return 0;
    std::puts(seek_fails(fd, at) ? "fq_write_item_commit.lseek error "
                                 : "fq_write_item_commit.write error ");
    return -1;
}

// Turns a batch readable, its first item last: readers stop at that one, so the batch appears to
// them all at once.
int flip_batch(int fd, int64_t first, int count) {
    int64_t at = first;
    for (int i = 0; i < count; ++i) {
        ItemHeader header;
        const ssize_t got = pread(fd, &header, kHeaderSize, at);
        if (got != kHeaderSize) {
            if (got >= 0 || !seek_fails(fd, at)) return -2;
            std::puts("fq_write_item_commit.lseek error ");
            return -1;
        }
        if (i > 0 && flip(fd, at) < 0) return -1;
        at += int64_t{header.length} + FQ_ITEM_EXTRA;
    }
    return flip(fd, first);
}

// Ends the file of a transaction that passed the limit.
int roll_over(int fd, fqtrans *trans, const Position &next) {
    if (next.offset <= kFileLimit) return 0;
    if (write_end_item(fd, next.offset) < 0 && seek_fails(fd, next.offset)) {
        std::puts("fq_write_item_commit.write(eof) error ");
        return -1;
    }
    put_order(trans->nextpos, next_order_of_commit(next.order));
    put_offset(trans->nextpos, 0);
    return 0;
}

} // namespace

int fq_write_item(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const Written item = write_item(path, trans, data, len, kWritten, 0);
    if (item.result < 0) return item.result;
    ++trans->count;
    put_offset(trans->nextpos, static_cast<int32_t>(item.end));
    return item.result;
}

int fq_write_item_once(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const Written item = write_item(path, trans, data, len, kCommitted, 0);
    if (item.result < 0) return item.result;
    ++trans->count;
    if (item.end > kFileLimit)
        return end_file(path, trans, item, next_order_of_single_shot(item.at.order));
    put_offset(trans->nextpos, static_cast<int32_t>(item.end));
    return item.result;
}

// Kept: an appended item is not counted.
int fq_append_item(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const Written item = write_item(path, trans, data, len, kCommitted, O_APPEND);
    if (item.result < 0) return item.result;
    if (item.end > kFileLimit)
        return end_file(path, trans, item, next_order_of_append(item.at.order));
    put_offset(trans->nextpos, static_cast<int32_t>(item.end));
    const int64_t grown = item.end - item.at.offset;
    if (grown <= item.result) return item.result;
    std::printf(" noff %ld - pos %ld = %ld != wbytes %ld\n", static_cast<long>(item.end),
                static_cast<long>(item.at.offset), static_cast<long>(grown),
                static_cast<long>(item.result));
    return -1;
}

int fq_write_item_commit(fqtrans *trans) noexcept {
    if (!trans || trans->count == 0 || !usable_path(trans->path)) {
        std::puts("fq_enqueue_commit invalid trans stat error ");
        return -1;
    }
    const bool batch = trans->count != 1;
    Position first, next;
    terminate_numbers(trans->curpos);
    terminate_numbers(trans->startpos);
    if (!checked_position(trans->path, batch ? trans->startpos : trans->curpos, first,
                          "fq_write_item_commit.lseek error ") ||
        !checked_position(trans->path, trans->nextpos, next,
                          "fq_write_item_commit.write(eof) error "))
        return -1;
    const FileName name = data_file(trans->path, first.order);
    const Descriptor file = open_queue_file(name, batch ? O_RDWR : O_WRONLY);
    if (!file) {
        std::printf("fq_write_item_commit.open error %s\n", name.text);
        return -1;
    }
    const int flipped =
        batch ? flip_batch(file.get(), first.offset, trans->count) : flip(file.get(), first.offset);
    return flipped < 0 ? flipped : roll_over(file.get(), trans, next);
}
