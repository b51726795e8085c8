// sms_fq: the position logs. The last whole record of a log is the position of its side; each
// commit appends one, and a log that has grown past its limit is begun again.
#include "fq/files/position.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "fq/files/durable.h"
#include "fq/files/names.h"
#include "fq/files/open_files.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

void print_torn(const char *format, int64_t size) {
    // The format is one of the two literals below.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    std::printf(format, static_cast<int>(size), kRecordSize, static_cast<int>(size % kRecordSize));
#pragma GCC diagnostic pop
}

constexpr char kTornRead[] = "경고! 인덱스 파일 손상.... 자동복구(읽기)..offset=%d "
                             "sizeof(fqpos)=%d modulo=%d\n";
constexpr char kTornWrite[] = "경고! 인덱스 파일 손상.... 자동복구(쓰기)..offset=%d "
                              "sizeof(fqpos)=%d modulo=%d\n";

// Whether a record is what a writer stored whose search for the last data file failed.
bool failed_search(const char *record) { return number_in(record + kOrderAt) == -1; }

// A log and the queue that it belongs to.
struct Log {
    int directory; // that a relative path counts from
    const char *path;
    int fd;
    int64_t size; // bytes; -1 when not known
    char mode;
};

// A reader whose search failed stores nothing: "the first file is 0" would hold for ever. A writer's
// record tells by its order that the next one is to search again.
int make_first_record(const Log &log, char *record) {
    const int fd = log.fd;
    std::printf("fq_get_pos.lseek error. first entry needed.(%c)\n", log.mode);
    bool searched = true;
    int order = log.mode == 'w' ? find_last_order(log.directory, log.path)
                                : find_first_order(log.directory, log.path, searched);
    if (log.mode != 'w' && order == -1) {
        std::puts("NO FILE TO READ ");
        order = 0;
    }
    std::printf("RESET POSITION first at %d\n", static_cast<int>(lseek(fd, 0, SEEK_CUR)));
    char text[kRecordSize + 8];
    std::snprintf(text, sizeof text, "%09d %09d %10s", order, 0, "first");
    std::memcpy(record, text, kRecordSize);
    record[kRecordSize - 1] = '\n';
    const ssize_t written = searched ? write(fd, record, kRecordSize) : 0;
    std::printf("RESET POSITION written  %d bytes and then %d\n", static_cast<int>(written),
                static_cast<int>(lseek(fd, 0, SEEK_CUR)));
    std::printf("RESET POSITION FOR %s, %.*s\n", log.mode == 'w' ? "WRITE" : "READ", kRecordSize,
                record);
    return kRecordSize; // Kept: whatever became of the write
}

int64_t size_of(int fd) {
    struct stat found {};
    return fstat(fd, &found) == 0 ? int64_t{found.st_size} : -1;
}

// As fq_get_pos.
int load(const Log &log, char *record, LastRecord &last, bool &made_first) {
    made_first = log.size >= 0 && log.size < kRecordSize;
    if (made_first) return make_first_record(log, record);
    if (log.size % kRecordSize != 0 && log.size >= 0) print_torn(kTornRead, log.size - kRecordSize);
    const ssize_t got = log.size < 0 ? -1 : read_last_record(log.fd, log.size, record, last);
    if (got != kRecordSize) {
        const int error = errno;
        std::printf("fq_get_pos.read error! rcnt=%d\n", static_cast<int>(got));
        errno = error;
        return -1;
    }
    if (last.stepped)
        std::printf(
            "the last position of file queue %s (%s) cannot be read; an earlier one counts\n",
            log.path, log.mode == 'w' ? "tail" : "head");
    const bool again = log.mode == 'w' && last.at == 0 && failed_search(record);
    made_first =
        (again || (last.blank && ftruncate(log.fd, 0) == 0)) && lseek(log.fd, 0, SEEK_SET) == 0;
    return made_first ? make_first_record(log, record) : kRecordSize;
}

// Writes a record in its form on disk at an offset of the log. 31, or -1 with a line.
int write_record(int fd, char *record, int64_t at) noexcept {
    separate_numbers(record);
    const ssize_t written = pwrite(fd, record, kRecordSize, at);
    terminate_numbers(record);
    if (written == kRecordSize) return kRecordSize;
    // Kept: the word "read" in a message about a write.
    std::printf("fq_set_pos.read error! wcnt=%d\n", static_cast<int>(written));
    return -1;
}

// As fq_set_pos, for a log of `size` bytes, -1 when unknown.
int append_record(int fd, char *record, int64_t size) noexcept {
    if (size < 0) return fq_set_pos(fd, record);
    if (size % kRecordSize != 0) print_torn(kTornWrite, size);
    return write_record(fd, record, size - size % kRecordSize);
}

// Begins a log again with nextpos. A reader that leaves a data file also keeps where it came from,
// so that its successor can tell that the file is consumed. -1: nothing was written; 0: the old
// records could not be cut off.
int begin_again(fqtrans *trans, bool reader) {
    int64_t at = 0;
    if (reader && std::memcmp(trans->startpos, trans->nextpos, kNumberWidth) != 0) {
        if (write_record(trans->posfd, trans->startpos, 0) < 0) return -1;
        at = kRecordSize;
    }
    if (write_record(trans->posfd, trans->nextpos, at) < 0) return -1;
    const bool cut = sync_file(trans->posfd) && ftruncate(trans->posfd, at + kRecordSize) == 0;
    return cut && sync_file(trans->posfd) ? kRecordSize : 0;
}

} // namespace

int halvo::fq::load_position(OpenSide &side, char *record, bool &made_first) noexcept {
    LastRecord last;
    const int result =
        load({side.directory(), side.path, side.log.get(), side.log.size(), side.mode}, record,
             last, made_first);
    side.log_size = made_first ? -1 : side.log.size();
    side.log_guess = side.log_size;
    side.left = last.left;
    return result;
}

bool halvo::fq::read_guessed_position(OpenSide &side, char *record) noexcept {
    constexpr ssize_t pair = ssize_t{2} * kRecordSize;
    char bytes[pair + 1]; // one more: the log must end there
    // The last whole record of a log that ends within one does not stand at its end.
    if (side.log_guess < pair || side.log_guess % kRecordSize != 0) return false;
    if (pread(side.log.get(), bytes, sizeof bytes, side.log_guess - pair) != pair) return false;
    std::memcpy(record, bytes + kRecordSize, kRecordSize);
    if (!position_in(record).valid()) return false;
    side.left = position_in(bytes);
    side.log_size = side.log_guess;
    return true;
}

bool halvo::fq::checked_position(const char *path, char *record, Position &at,
                                 const char *seek_message) noexcept {
    at = position_in(record);
    terminate_numbers(record);
    if (at.valid()) return true;
    std::printf("damaged position \"%.9s %.9s\" of file queue %s\n", record + kOrderAt,
                record + kOffsetAt, path);
    if (at.order >= 0) std::puts(seek_message);
    return false;
}

bool halvo::fq::move_position(const char *path, char *record, int64_t order,
                              int64_t offset) noexcept {
    if (!move_offset(path, record, order, offset)) return false;
    put_order(record, static_cast<int32_t>(order));
    return true;
}

bool halvo::fq::move_offset(const char *path, char *record, int64_t order,
                            int64_t offset) noexcept {
    if (fits_field(order) && fits_field(offset)) {
        put_offset(record, static_cast<int32_t>(offset));
        return true;
    }
    std::printf("position %lld %lld of file queue %s is too large\n", static_cast<long long>(order),
                static_cast<long long>(offset), path);
    return false;
}

Saved halvo::fq::save_position(fqtrans *trans, void (*tell_uncut)(const fqtrans *)) noexcept {
    OpenSide *side = running_side(trans);
    const int fd = trans->posfd;
    const int64_t size = side ? side->log_size : -1;
    const bool reader = side && side->mode == 'r';
    const bool full = (size < 0 ? size_of(fd) : size) > kFileLimit;
    if (!full) {
        const int appended = append_record(fd, trans->nextpos, size);
        if (side) side->log_guess = appended < 0 ? -1 : size - size % kRecordSize + kRecordSize;
        if (appended >= 0) return {appended, false, false};
        const bool begun = begin_again(trans, reader) > 0;
        return {begun ? kRecordSize : -1, false, begun};
    }
    const int begun = begin_again(trans, reader);
    if (begun != 0) return {begun, true, begun > 0};
    tell_uncut(trans);
    return {append_record(fd, trans->nextpos, size), true, false};
}

void halvo::fq::keep_last_record(fqtrans *trans) noexcept { begin_again(trans, false); }

int fq_get_pos(const char *path, int fd, char *record, char mode) noexcept {
    const CancellationOff whole_call;
    if (!usable_path(path) || !record) return -1;
    bool made_first = false;
    LastRecord last;
    return load({AT_FDCWD, path, fd, size_of(fd), mode}, record, last, made_first);
}

int fq_set_pos(int fd, char *record) noexcept {
    const CancellationOff whole_call;
    if (!record) return -1;
    const int64_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) {
        std::puts("fq_set_pos.lseek error");
        return -1;
    }
    return append_record(fd, record, size);
}
