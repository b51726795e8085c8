// sms_fq: the position logs. The last whole record of a log is the position of its side; each
// commit appends one, and a log that has grown past its limit is begun again.
#include "fq/position.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "fq/open_files.h"

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

// A reader whose search failed stores nothing: "the first file is 0" would hold for ever. A writer's
// record tells by its order that the next one is to search again.
int make_first_record(const char *path, int fd, char *record, char mode) {
    std::printf("fq_get_pos.lseek error. first entry needed.(%c)\n", mode);
    bool searched = true;
    int order = mode == 'w' ? fq_find_forder_last(path) : find_first_order(path, searched);
    if (mode != 'w' && order == -1) {
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
    std::printf("RESET POSITION FOR %s, %.*s\n", mode == 'w' ? "WRITE" : "READ", kRecordSize,
                record);
    return kRecordSize; // Kept: whatever became of the write
}

int64_t size_of(int fd) {
    struct stat found {};
    return fstat(fd, &found) == 0 ? int64_t{found.st_size} : -1;
}

} // namespace

int halvo::fq::load_position(const char *path, int fd, int64_t size, char *record, char mode,
                             bool &made_first) noexcept {
    made_first = false;
    int64_t at = size - kRecordSize;
    if (size >= 0 && at < 0) {
        made_first = true;
        return make_first_record(path, fd, record, mode);
    }
    if (size >= 0 && at % kRecordSize != 0) {
        print_torn(kTornRead, at);
        at -= at % kRecordSize;
    }
    const ssize_t got = size < 0 ? -1 : pread(fd, record, kRecordSize, at);
    if (got == kRecordSize && mode == 'w' && at == 0 && failed_search(record) &&
        lseek(fd, 0, SEEK_SET) == 0) {
        made_first = true;
        return make_first_record(path, fd, record, mode);
    }
    if (got == kRecordSize) return kRecordSize;
    std::printf("fq_get_pos.read error! rcnt=%d\n", static_cast<int>(got));
    return -1;
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

int64_t halvo::fq::locked_log_size(const fqtrans *trans) noexcept {
    const OpenSide *side = running_side(trans->lockfd);
    return side ? side->log_size : -1;
}

bool halvo::fq::log_is_full(int fd, int64_t size) noexcept {
    return (size < 0 ? size_of(fd) : size) > kFileLimit;
}

int halvo::fq::write_record(int fd, char *record, int64_t at) noexcept {
    separate_numbers(record);
    const ssize_t written = pwrite(fd, record, kRecordSize, at);
    terminate_numbers(record);
    if (written == kRecordSize) return kRecordSize;
    // Kept: the word "read" in a message about a write.
    std::printf("fq_set_pos.read error! wcnt=%d\n", static_cast<int>(written));
    return -1;
}

int halvo::fq::append_record(int fd, char *record, int64_t size) noexcept {
    if (size < 0) return fq_set_pos(fd, record);
    if (size % kRecordSize != 0) print_torn(kTornWrite, size);
    return write_record(fd, record, size - size % kRecordSize);
}

int fq_get_pos(const char *path, int fd, char *record, char mode) noexcept {
    if (!usable_path(path) || !record) return -1;
    bool made_first = false;
    return load_position(path, fd, size_of(fd), record, mode, made_first);
}

int fq_set_pos(int fd, char *record) noexcept {
    if (!record) return -1;
    const int64_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) {
        std::puts("fq_set_pos.lseek error");
        return -1;
    }
    return append_record(fd, record, size);
}
