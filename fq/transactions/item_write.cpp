// sms_fq: writing items and making them readable. Three writers share one base and differ in the
// item's state, in the place and in when they end a file.
#include "fq/transactions/item_write.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "fq/files/durable.h"
#include "fq/files/open_files.h"
#include "fq/files/position.h"

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

// The whole item in one piece, so that a single write puts it on disk.
void build_item(char *item, char state, const void *data, uint32_t length) {
    const ItemHeader header = make_header(state, length);
    std::memcpy(item, &header, kHeaderSize);
    std::memcpy(item + kHeaderSize, data, length);
    std::memcpy(item + kHeaderSize + length, kTrailer, kTrailerSize);
}

// What the base writer did.
struct Written {
    DataFile data;   // still open after success
    int result = -1; // bytes written, or the failure
    Position at{};   // of curpos
    int64_t end = 0; // file offset behind the item
};

// Where an uncommitted item is built to be kept for the commit; null when it is not kept.
char *kept_place(const Written &item, const fqtrans *trans, char state, size_t size) {
    if (!item.data.side() || state != kWritten) return nullptr;
    Batch &batch = item.data.side()->batch;
    if (trans->count == 0) batch.begin(item.at.order, item.at.offset);
    return batch.room(item.at.order, item.at.offset, size);
}

bool open_data(const char *path, int flags, Written &item) {
    const bool opened = item.data.open(item.at.order, flags);
    if (!opened) std::printf("fq_write_item.open error %s\n", data_file(path, item.at.order).text);
    const bool is_new = opened && item.data.side() && item.data.file().size() == 0;
    return opened && (!is_new || sync_names(item.data.directory(), path));
}

ssize_t write_bytes(Written &item, const char *bytes, size_t size, int flags) {
    if (flags & O_APPEND) return write(item.data.get(), bytes, size);
    const ssize_t written = pwrite(item.data.get(), bytes, size, item.at.offset);
    const bool closed_behind_our_back = written < 0 && errno == EBADF && item.data.side();
    if (!closed_behind_our_back || !item.data.open_anew(item.at.order, flags)) return written;
    return pwrite(item.data.get(), bytes, size, item.at.offset);
}

void write_item(const char *path, fqtrans *trans, const void *data, unsigned len, char state,
                int flags, Written &item) {
    if (!checked_position(path, trans->curpos, item.at, "fq_write.lseek error ")) return;
    const bool append = flags & O_APPEND;
    const size_t size = size_t{len} + FQ_ITEM_EXTRA;
    item.end = item.at.offset + static_cast<int64_t>(size);
    if (!append && !fits_field(item.end)) {
        std::printf("fq_write_item: file queue %s cannot take %u bytes at offset %d\n", path, len,
                    static_cast<int>(item.at.offset));
        return;
    }
    flags |= O_WRONLY | O_CREAT;
    if (!open_data(path, flags, item)) return;
    char *const kept = kept_place(item, trans, state, size);
    const Bytes own(kept ? nullptr : static_cast<char *>(std::malloc(size)));
    char *const bytes = kept ? kept : own.get();
    if (!bytes) {
        std::printf("fq_write_item: no memory for %u bytes\n", len);
        return;
    }
    build_item(bytes, state, data, len);
    const ssize_t written = write_bytes(item, bytes, size, flags);
    if (written != static_cast<ssize_t>(size)) {
        if (!append && written < 0 && seek_fails(item.data.get(), item.at.offset))
            std::puts("fq_write.lseek error ");
        else
            std::printf("fq_write_item.write error %s %ld != %ld\n",
                        data_file(path, item.at.order).text, static_cast<long>(size),
                        static_cast<long>(written));
        return;
    }
    if (kept) item.data.side()->batch.add(size);
    if (append) item.end = lseek(item.data.get(), 0, SEEK_CUR);
    trans->itemlen = static_cast<int>(len);
    std::memcpy(trans->nextpos, trans->curpos, kRecordSize);
    item.result = static_cast<int>(size);
}

// An ended file is not kept: its reader will delete it, and it would still take up the disk.
void forget_ended_file(OpenSide *side) {
    if (side) side->data.close();
}

// Puts an end item behind an item that passed the limit; nextpos becomes the start of the file
// `next_order`.
int end_file(const char *path, fqtrans *trans, Written &item, int32_t next_order) {
    // The end item's own write is not checked; a reader that finds none goes on when the next file
    // is there.
    write_end_item(item.data.get(), item.end);
    if (item.data.side() && !sync_file(item.data.get())) return -1;
    forget_ended_file(item.data.side());
    return move_position(path, trans->nextpos, next_order, 0) ? item.result : -1;
}

// The write of a state failed: -1, after a line.
int flip_failed(int fd, int64_t at) {
    std::puts(seek_fails(fd, at) ? "fq_write_item_commit.lseek error "
                                 : "fq_write_item_commit.write error ");
    return -1;
}

// Turns the item at an offset readable. 0, or -1 after a line.
int flip(int fd, int64_t item) {
    const int64_t at = item + kStateOffset;
    return pwrite(fd, &kCommitted, 1, at) == 1 ? 0 : flip_failed(fd, at);
}

// Turns a batch readable, its first item last: readers stop at that one, so the batch appears to
// them all at once.
int flip_batch(int fd, int64_t first, int count) {
    int64_t at = first;
    if (!sync_file(fd)) return -1;
    for (int i = 0; i < count; ++i) {
        ItemHeader header;
        const ssize_t got = pread(fd, &header, kHeaderSize, at);
        if (got != kHeaderSize) {
            if (got >= 0 || !seek_fails(fd, at)) return -2;
            std::puts("fq_write_item_commit.lseek error ");
            return -1;
        }
        if (i > 0 && flip(fd, at) < 0) return -1;
        at += size_of_item(header);
    }
    return sync_file(fd) ? flip(fd, first) : -1;
}

// The same for items that were kept.
int flip_kept(int fd, Batch &batch, int64_t first) {
    int64_t failed_at = 0;
    if (!sync_file(fd)) return -1;
    if (!batch.make_others_readable(fd, failed_at)) return flip_failed(fd, failed_at);
    return sync_file(fd) ? flip(fd, first) : -1;
}

// Ends the file of a transaction that passed the limit.
int roll_over(int fd, fqtrans *trans, const Position &next) {
    if (next.offset <= kFileLimit) return 0;
    if (write_end_item(fd, next.offset) < 0 && seek_fails(fd, next.offset)) {
        std::puts("fq_write_item_commit.write(eof) error ");
        return -1;
    }
    if (!sync_file(fd)) return -1;
    put_order(trans->nextpos, next_order_of_commit(next.order));
    put_offset(trans->nextpos, 0);
    forget_ended_file(running_side(trans));
    return 0;
}

int end_commit(int fd, int flipped, fqtrans *trans, const Position &next) {
    if (flipped < 0) return flipped;
    return sync_file(fd) ? roll_over(fd, trans, next) : -1;
}

} // namespace

ssize_t halvo::fq::write_end_item(int fd, int64_t at) noexcept {
    char item[FQ_ITEM_EXTRA];
    const ItemHeader header = make_header(kEnd, 0);
    std::memcpy(item, &header, kHeaderSize);
    std::memcpy(item + kHeaderSize, kTrailer, kTrailerSize);
    return pwrite(fd, item, sizeof item, at); // O_APPEND writes to the end whatever the offset
}

int fq_write_item(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const CancellationOff whole_call;
    if (!usable_item(path, data, len) || !trans) return ESMS_INVAL;
    Written item{DataFile(trans, path)};
    write_item(path, trans, data, len, kWritten, 0, item);
    if (item.result < 0) return item.result;
    ++trans->count;
    put_offset(trans->nextpos, static_cast<int32_t>(item.end));
    return item.result;
}

int fq_write_item_once(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const CancellationOff whole_call;
    if (!usable_item(path, data, len) || !trans) return ESMS_INVAL;
    Written item{DataFile(trans, path)};
    const int64_t from = position_in(trans->curpos).offset;
    const bool in_two_steps =
        item.data.side() && is_durable() && may_get_holes(from, from + len + FQ_ITEM_EXTRA);
    write_item(path, trans, data, len, in_two_steps ? kWritten : kCommitted, 0, item);
    if (item.result < 0) return item.result;
    const int fd = item.data.get();
    if (in_two_steps && (!sync_file(fd) || flip(fd, from) < 0)) return -1;
    if (item.data.side() && !sync_file(fd)) return -1;
    ++trans->count;
    if (item.end > kFileLimit)
        return end_file(path, trans, item, next_order_of_single_shot(item.at.order));
    put_offset(trans->nextpos, static_cast<int32_t>(item.end));
    return item.result;
}

// Kept: an appended item is not counted.
int fq_append_item(const char *path, fqtrans *trans, const void *data, unsigned len) noexcept {
    const CancellationOff whole_call;
    if (!usable_item(path, data, len) || !trans) return ESMS_INVAL;
    Written item{DataFile(path)}; // a descriptor of its own
    write_item(path, trans, data, len, kCommitted, O_APPEND, item);
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
    const CancellationOff whole_call;
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
    OpenSide *side = running_side(trans, trans->path);
    if (side && side->data_seen && side->data_order == first.order) {
        if (!side->is_still_the_queue(batch)) return -1;
        const int fd = side->data.get();
        if (!batch && may_get_holes(first.offset, next.offset) && !sync_file(fd)) return -1;
        if (!batch) return end_commit(fd, flip(fd, first.offset), trans, next);
        // Somebody else may have cut the file: then one looks at each item.
        if (side->batch.holds(first.order, first.offset, trans->count) &&
            side->data.size() >= next.offset)
            return end_commit(fd, flip_kept(fd, side->batch, first.offset), trans, next);
    }
    const FileName name = data_file(trans->path, first.order);
    const Descriptor file =
        open_queue_file(side ? side->directory() : AT_FDCWD, name, batch ? O_RDWR : O_WRONLY);
    if (!file) {
        std::printf("fq_write_item_commit.open error %s\n", name.text);
        return -1;
    }
    const int flipped =
        batch ? flip_batch(file.get(), first.offset, trans->count) : flip(file.get(), first.offset);
    return end_commit(file.get(), flipped, trans, next);
}
