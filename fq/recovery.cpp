// sms_fq: a transaction becomes readable first and its position is saved then. A writer that dies
// in between has put its items into the queue, though nobody was told; they may have been read
// already. One that dies earlier leaves items that must never become readable. So the next writer
//
//   saved position           end of file
//     | F | F | F | W | F | W |            steps over the complete F items (readable, not saved),
//                 ^ goes on here           over an end item into the next file, and cuts off the
//                                          rest (a batch that died between its flips).
#include "fq/recovery.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fq/open_files.h"
#include "fq/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

enum class Found { settled, next_file, failed };

// Whether an item may be a readable one that ends at `end`, in a file of `size` bytes.
bool may_be_complete(const ItemHeader &header, int64_t end, int64_t size) {
    return header.has_magic() && header.state == kCommitted && header.length > 0 && end <= size &&
           fits_field(end);
}

// Reads what the file holds for certain. Without it nothing may be cut off.
bool read_whole(int fd, void *data, size_t size, int64_t at) {
    return pread(fd, data, size, at) == static_cast<ssize_t>(size);
}

// Readers take a header with length 0 for the end, even when its trailer is missing.
bool ends_file(const ItemHeader &header) {
    return header.has_magic() && header.state == kEnd && header.length == 0;
}

Found settle_in_file(int fd, Position &at) {
    struct stat file {};
    if (fstat(fd, &file) != 0) return Found::failed;
    if (!S_ISREG(file.st_mode)) return Found::settled;
    while (at.offset + int64_t{kHeaderSize} <= file.st_size) {
        ItemHeader header;
        char trailer[kTrailerSize];
        if (!read_whole(fd, &header, kHeaderSize, at.offset)) return Found::failed;
        if (ends_file(header)) return Found::next_file;
        const int64_t end = at.offset + int64_t{header.length} + FQ_ITEM_EXTRA;
        if (!may_be_complete(header, end, file.st_size)) break;
        if (!read_whole(fd, trailer, kTrailerSize, end - kTrailerSize)) return Found::failed;
        if (std::memcmp(trailer, kTrailer, kTrailerSize) != 0) break;
        at.offset = static_cast<int32_t>(end);
    }
    if (file.st_size > at.offset && ftruncate(fd, at.offset) != 0) return Found::failed;
    return Found::settled;
}

// Whether file order b comes after a, on the circle of the orders that a commit uses.
bool comes_after(int32_t a, int32_t b) {
    constexpr int32_t circle = 100000000;
    if (a >= circle || b >= circle) return false;
    const int32_t distance = (b - a + circle) % circle;
    return distance > 0 && distance < circle / 2;
}

// The data file is gone. A reader removes one only when it has gone on to a later one; then the
// file had been ended by a writer that died before it saved its position.
bool follow_reader(const char *path, Position &at) {
    const Descriptor log = open_queue_file(head_file(path), O_RDONLY);
    struct stat file {};
    char record[kRecordSize];
    if (!log || fstat(log.get(), &file) != 0 || file.st_size < kRecordSize) return false;
    const int64_t last = (file.st_size / kRecordSize - 1) * kRecordSize;
    if (pread(log.get(), record, kRecordSize, last) != kRecordSize) return false;
    const Position reader = position_in(record);
    if (!reader.valid() || !comes_after(at.order, reader.order)) return false;
    at = {reader.order, 0};
    return true;
}

// Whether nothing stands behind the position in the file that the last transaction left open.
bool left_at(DataFile &data, const Position &at) {
    return data.is(at.order) && data.file.still_there() && data.file.size() == at.offset;
}

} // namespace

int halvo::fq::settle_writer(fqtrans *trans) noexcept {
    Position at = position_in(trans->curpos);
    if (!at.valid()) return 0; // the first write says so
    OpenSide *side = running_side(trans->lockfd);
    DataFile own;
    DataFile &data = side ? side->data : own;
    while (!left_at(data, at)) {
        if (!data.open(trans->path, at.order, O_RDWR)) {
            const bool missing = errno == ENOENT;
            data.file.close(); // of that order, but it has another name now
            if (missing && follow_reader(trans->path, at)) continue;
            if (missing) break;
            std::printf("fq_write_item.open error %s\n", data_file(trans->path, at.order).text);
            return -1;
        }
        const Found found = settle_in_file(data.file.get(), at);
        if (found == Found::failed) {
            std::printf("fq_enqueue.recovery error %s\n", data_file(trans->path, at.order).text);
            return -1;
        }
        if (found == Found::settled) break;
        at = {next_order_of_commit(at.order), 0};
    }
    if (side) side->data_seen = true;
    put_order(trans->curpos, at.order);
    put_offset(trans->curpos, at.offset);
    std::memcpy(trans->startpos, trans->curpos, kRecordSize);
    return 0;
}
