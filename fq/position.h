// sms_fq: reading and saving the position of a side.
#pragma once

#include <unistd.h>

#include "fq/format.h"

namespace halvo::fq {

// As fq_find_forder_first. `searched`: whether the directory could be read to its end.
int find_first_order(const char *path, bool &searched) noexcept;

// As fq_get_pos, for a log of `size` bytes, -1 when that is not known. `made_first`: the file held no
// record, so that the position is not one that a
// transaction saved but the intended start.
int load_position(const char *path, int fd, int64_t size, char *record, char mode,
                  bool &made_first) noexcept;

// The position in a held record, whose numbers it terminates. False for a damaged record (not nine
// digits, or negative): that and then `seek_message`, when the offset is at fault, are printed.
bool checked_position(const char *path, char *record, Position &at,
                      const char *seek_message) noexcept;

// Sets both numbers of a record. False, with a line, when one does not fit its field.
bool move_position(const char *path, char *record, int64_t order, int64_t offset) noexcept;
// The same for a record that has the order already.
bool move_offset(const char *path, char *record, int64_t order, int64_t offset) noexcept;

// Bytes in the log whose lock a record holds, as found when it was locked; -1 when unknown.
int64_t locked_log_size(const fqtrans *trans) noexcept;
// Whether a log has passed its limit. `size`: as above.
bool log_is_full(int fd, int64_t size) noexcept;

// Writes a record in its form on disk at an offset of the log. 31, or -1 with a line.
int write_record(int fd, char *record, int64_t at) noexcept;

// As fq_set_pos, for a log of `size` bytes, -1 when unknown.
int append_record(int fd, char *record, int64_t size) noexcept;

struct Saved {
    int result;    // 31, or -1
    bool log_full; // whether the log had passed its limit
};

// Saves nextpos as the new position: as fq_set_pos, but a full log is begun again with this record
// as its only one. The record is written before the old ones are cut off, so that the log holds a
// valid position at every moment. `on_uncut` is called when the cutting fails; the record is then
// appended.
template <class OnUncut>
Saved save_position(fqtrans *trans, OnUncut on_uncut) noexcept {
    const int fd = trans->posfd;
    const int64_t size = locked_log_size(trans);
    if (!log_is_full(fd, size)) return {append_record(fd, trans->nextpos, size), false};
    if (write_record(fd, trans->nextpos, 0) < 0) return {-1, true};
    if (ftruncate(fd, kRecordSize) == 0) return {kRecordSize, true};
    on_uncut();
    return {append_record(fd, trans->nextpos, size), true};
}

} // namespace halvo::fq
