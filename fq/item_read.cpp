// sms_fq: reading the item at a position, and going on where a file ends or an item is damaged.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fq/open_files.h"
#include "fq/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

constexpr int kTooLarge = -2;
constexpr int kIncomplete = -100;

// One look at the position: an answer for the caller, or `again` at a position that has moved.
struct Look {
    bool again;
    int result;
};
constexpr Look answer(int result) { return {false, result}; }
constexpr Look again() { return {true, 0}; }

class ItemReader {
public:
    ItemReader(const char *path, fqtrans *trans, void *buf, unsigned cap)
        : path_(path), trans_(trans), buf_(static_cast<char *>(buf)), cap_(cap),
          side_(running_side(trans->lockfd, path)) {}

    int read() {
        for (;;) {
            const Look look = look_at_position();
            if (!look.again) return look.result;
        }
    }

private:
    Look look_at_position() {
        trans_->itemlen = 0;
        std::memset(buf_ + offsetof(ItemHeader, length), 0, sizeof(ItemHeader::length));
        if (!checked_position(path_, trans_->curpos, at_, "fq_read_item.lseek error "))
            return answer(-1);
        if (!open_data()) return errno == ENOENT && skips_missing_file() ? next_file() : answer(0);
        const ssize_t got = read_header();
        if (got != kHeaderSize) {
            const int fault = seek_fault();
            if (fault < 0) return answer(fault);
            if (!skips_file_without_end(got)) return answer(0);
            return next_file();
        }
        std::memcpy(buf_, &header_, kHeaderSize);
        return header_found();
    }

    bool open_data() {
        if (side_ && side_->has_data(at_.order)) {
            fd_ = side_->data.file.get();
            return true;
        }
        DataFile &data = side_ ? side_->data : own_;
        if (!data.open(path_, at_.order, O_RDONLY)) return false;
        fd_ = data.file.get();
        if (side_) {
            side_->data_seen = true;
            side_->ahead.forget();
        }
        return true;
    }

    // As pread; header_ is filled then. What a piece read ahead holds is current only for items that
    // do not change any more.
    ssize_t read_header() {
        if (!side_) return pread(fd_, &header_, kHeaderSize, at_.offset);
        ReadAhead &ahead = side_->ahead;
        if (!ahead.holds_readable_item(at_.offset)) {
            const ssize_t got = ahead.load(fd_, at_.offset);
            if (got < ssize_t{kHeaderSize}) return got;
        }
        std::memcpy(&header_, ahead.at(at_.offset), kHeaderSize);
        return kHeaderSize;
    }

    // The data and the trailer, as pread.
    ssize_t read_body(size_t size) {
        const int64_t at = int64_t{at_.offset} + kHeaderSize;
        if (!side_ || side_->ahead.held(at) < size) return pread(fd_, data(), size, at);
        std::memcpy(data(), side_->ahead.at(at), size);
        return static_cast<ssize_t>(size);
    }

    // The queue's own seeks fail for what is no file one can go about in (a pipe, a device).
    int seek_fault() const {
        const off_t landed = lseek(fd_, at_.offset, SEEK_SET);
        if (landed == at_.offset) return 0;
        std::puts(landed < 0 ? "fq_read_item.lseek error " : "fq_read_item.lseek(2) error ");
        return -1;
    }

    bool writer_has_gone_on() const {
        struct stat found {};
        return stat(data_file(path_, next_order_of_commit(at_.order)).text, &found) == 0;
    }

    // The file was deleted by a reader that died before its position was saved, if the next one is
    // there. Looks twice: the writer may have made both in between.
    bool skips_missing_file() {
        struct stat found {};
        return writer_has_gone_on() && stat(name().text, &found) != 0 && errno == ENOENT;
    }

    // The writer could not write the end item, on a full disk for instance, but has gone on to the
    // next file. Only a file past its limit is left that way; what stood in it is complete now.
    bool skips_file_without_end(ssize_t got) {
        if (got < 0 || at_.offset <= kFileLimit || !writer_has_gone_on()) return false;
        struct stat file {};
        return fstat(fd_, &file) == 0 && file.st_size < at_.offset + off_t{kHeaderSize};
    }

    Look next_file() {
        put_order(trans_->curpos, next_order_of_commit(at_.order));
        put_offset(trans_->curpos, 0);
        std::memcpy(trans_->nextpos, trans_->curpos, kRecordSize);
        return again();
    }

    Look header_found() {
        if (header_.state == kWritten) return answer(0);
        if (header_.length == 0) return next_file();
        if (!header_.has_magic()) {
            std::printf(" WARNING...( QITM header not match. maybe retransaction )  in file %s "
                        "offset=%ld\n",
                        name().text, static_cast<long>(at_.offset));
            return answer(0);
        }
        if (header_.length > cap_ || header_.length > FQ_ITEM_MAX) {
            std::printf(" WARNING...buffer(%d bytes) is insufficient for data(%d bytes) in %s "
                        "offset=%ld\n",
                        static_cast<int>(cap_), static_cast<int>(header_.length), name().text,
                        static_cast<long>(at_.offset));
            return answer(kTooLarge);
        }
        return read_data();
    }

    Look read_data() {
        const size_t wanted = size_t{header_.length} + kTrailerSize;
        const ssize_t got = read_body(wanted);
        if (got < 0 || static_cast<size_t>(got) < wanted) return answer(incomplete());
        if (std::memcmp(data() + header_.length, kTrailer, kTrailerSize) != 0)
            return resynchronise();
        trans_->itemlen = static_cast<int>(header_.length);
        if (header_.state != kCommitted) return answer(0);
        const int64_t end = int64_t{at_.offset} + header_.length + FQ_ITEM_EXTRA;
        std::memcpy(trans_->nextpos, trans_->curpos, kRecordSize);
        if (!move_offset(path_, trans_->nextpos, at_.order, end)) return answer(-1);
        if (side_) side_->ahead.take(size_t{header_.length} + FQ_ITEM_EXTRA);
        return answer(static_cast<int>(header_.length + kTrailerSize + 23));
    }

    int incomplete() const {
        const auto age = static_cast<int32_t>(static_cast<uint32_t>(time(nullptr)) - header_.stamp);
        return age > kIncompleteSeconds ? kIncomplete : 0;
    }

    // The trailer is damaged: a later item may begin within what should be this one's data.
    // Kept: the search ends before the last four bytes of the data.
    Look resynchronise() {
        const char *found = nullptr;
        if (header_.length > kMagicSize)
            found =
                static_cast<const char *>(memmem(data(), header_.length - 1, kMagic, kMagicSize));
        if (!found) {
            const char *trailer = data() + header_.length;
            std::printf("복구불능오류.!!..( QBroken check(end) bit is false )  in file %s "
                        "xoffset=%ld ,%ld %2.2s\n",
                        name().text, static_cast<long>(at_.offset),
                        static_cast<long>(header_.length), trailer);
            return answer(-1);
        }
        const int64_t ahead = kHeaderSize + (found - data());
        if (!move_position(path_, trans_->curpos, at_.order, at_.offset + ahead)) return answer(-1);
        std::printf("자동복구! 현위치로부터 %d에서 새 아이템 검색.\n", static_cast<int>(ahead));
        return again();
    }

    FileName name() const { return data_file(path_, at_.order); }
    char *data() const { return buf_ + kHeaderSize; }

    const char *path_;
    fqtrans *trans_;
    char *buf_;
    unsigned cap_;
    OpenSide *side_; // null for a record without one
    DataFile own_;   // the data file then
    int fd_ = -1;    // the data file
    Position at_;
    ItemHeader header_;
};

} // namespace

int fq_read_item(const char *path, fqtrans *trans, void *buf, unsigned cap) noexcept {
    if (!usable_path(path) || !trans || !buf) return ESMS_INVAL;
    return ItemReader(path, trans, buf, cap).read();
}
