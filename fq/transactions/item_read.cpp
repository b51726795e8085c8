// sms_fq: reading the item at a position, and going on where a file ends or an item is damaged.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fq/files/durable.h"
#include "fq/files/names.h"
#include "fq/files/open_files.h"
#include "fq/files/position.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

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
        : path_(path), trans_(trans), buf_(static_cast<char *>(buf)), cap_(cap), data_(trans, path),
          side_(data_.side()) {}

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
        if (!open_data()) return not_opened();
        const ssize_t got = read_header();
        if (got != kHeaderSize) return no_header(got);
        std::memcpy(buf_, &header_, kHeaderSize);
        return header_found();
    }

    Look no_header(ssize_t got) {
        if (got < 0 && errno == EBADF && side_) { // closed behind our back
            side_->data.close();
            return again();
        }
        const bool unreadable = got < 0 && errno != ESPIPE && errno != EISDIR;
        if (unreadable) return failed("read");
        if (!can_seek()) return answer(-1);
        return skips_file_without_end(got) ? next_file() : answer(0);
    }

    bool open_data() {
        const bool there = side_ && side_->has_data(at_.order);
        if (!there && !data_.open_anew(at_.order, O_RDONLY)) return false;
        if (side_ && !there) side_->ahead.forget();
        fd_ = data_.get();
        return true;
    }

    // There is nothing to read where no file is; any other failure is one.
    Look not_opened() {
        const FileName file = name();
        if (errno == ENOENT) {
            // The reader's log names a file that is gone: deleted by a reader that died before its
            // position was saved, or restored from a copy. Looks twice: the writer may have made
            // both in between.
            const int next = find_next_order(data_.directory(), path_, at_.order);
            const bool missing =
                next >= 0 && !state_of(data_.directory(), file.text).found && errno == ENOENT;
            return missing ? go_on_with(next) : answer(0);
        }
        return failed("open");
    }

    // The answer to a call that failed, after its line.
    Look failed(const char *call) {
        const int error = errno;
        std::printf("fq_read_item.%s error %s (%s)\n", call, name().text, std::strerror(error));
        return answer(-1);
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

    // The whole item, as pread.
    ssize_t read_item(size_t size) {
        if (!side_ || side_->ahead.held(at_.offset) < size)
            return pread(fd_, buf_, size, at_.offset);
        std::memcpy(buf_, side_->ahead.at(at_.offset), size);
        return static_cast<ssize_t>(size);
    }

    // What a writer that failed has left of an item is cut off by the next one, whose items may
    // stand there since the header was looked at.
    bool is_another(const void *header) const {
        return std::memcmp(header, &header_, kHeaderSize) != 0;
    }
    bool is_another_now() const {
        ItemHeader now;
        return pread(fd_, &now, kHeaderSize, at_.offset) == kHeaderSize && is_another(&now);
    }

    // The queue's own seeks fail for what is no file one can go about in (a pipe, a device).
    bool can_seek() const {
        const off_t landed = lseek(fd_, at_.offset, SEEK_SET);
        if (landed == at_.offset) return true;
        std::puts(landed < 0 ? "fq_read_item.lseek error " : "fq_read_item.lseek(2) error ");
        return false;
    }

    bool writer_has_gone_on() const {
        const FileName next = data_file(path_, next_order_of_commit(at_.order));
        return state_of(data_.directory(), next.text).found;
    }

    // The writer could not write the end item, on a full disk for instance, but has gone on to the
    // next file. Only a file past its limit is left that way; what stood in it is complete now.
    bool skips_file_without_end(ssize_t got) {
        if (got < 0 || at_.offset <= kFileLimit || !writer_has_gone_on()) return false;
        const FileState file = state_of(fd_);
        return file.found && file.size < at_.offset + int64_t{kHeaderSize};
    }

    // What was read of this file must be on the disk before a position behind it is.
    Look next_file() {
        if (side_ && trans_->count > 0 && !sync_file(fd_)) return answer(-1);
        return go_on_with(next_order_of_commit(at_.order));
    }

    Look go_on_with(int32_t order) {
        put_order(trans_->curpos, order);
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
        const auto wanted = static_cast<size_t>(size_of_item(header_));
        const ssize_t got = read_item(wanted);
        if (got < 0) return failed("read");
        if (static_cast<size_t>(got) < wanted) return answer(incomplete());
        if (is_another(buf_)) return again();
        if (!is_trailer(data() + header_.length))
            return is_another_now() ? again() : resynchronise();
        trans_->itemlen = static_cast<int>(header_.length);
        if (header_.state != kCommitted) return answer(0);
        const int64_t end = at_.offset + static_cast<int64_t>(wanted);
        std::memcpy(trans_->nextpos, trans_->curpos, kRecordSize);
        if (!move_offset(path_, trans_->nextpos, at_.order, end)) return answer(-1);
        if (side_) side_->ahead.take(wanted);
        return answer(static_cast<int>(header_.length + kReadExtra));
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
    DataFile data_;
    OpenSide *side_; // null for a record without one
    int fd_ = -1;    // of the data file
    Position at_;
    ItemHeader header_;
};

} // namespace

int fq_read_item(const char *path, fqtrans *trans, void *buf, unsigned cap) noexcept {
    const CancellationOff whole_call;
    if (!usable_path(path) || !trans || !buf) return ESMS_INVAL;
    return ItemReader(path, trans, buf, cap).read();
}
