// sms_fq: reading and saving the position of a side.
#pragma once

#include <unistd.h>

#include "fq/format.h"

namespace halvo::fq {

// As fq_find_forder_first. `searched`: whether the directory could be read to its end.
int find_first_order(const char *path, bool &searched) noexcept;

// As fq_get_pos. `made_first`: the file held no record, so that the position is not one that a
// transaction saved but the intended start.
int load_position(const char *path, int fd, char *record, char mode, bool &made_first) noexcept;

// The position in a held record, whose numbers it terminates. False for a damaged record (not nine
// digits, or negative): that and then `seek_message`, when the offset is at fault, are printed.
bool checked_position(const char *path, char *record, Position &at,
                      const char *seek_message) noexcept;

// Sets both numbers of a record. False, with a line, when one does not fit its field.
bool move_position(const char *path, char *record, int64_t order, int64_t offset) noexcept;

// Whether the log has passed its limit.
bool log_is_full(int fd) noexcept;

// Writes a record in its form on disk at an offset of the log. 31, or -1 with a line.
int write_record(int fd, char *record, int64_t at) noexcept;

struct Saved {
    int result;    // 31, or -1
    bool log_full; // whether the log had passed its limit
};

// Saves a record as the new position: as fq_set_pos, but a full log is begun again with this record
// as its only one. The record is written before the old ones are cut off, so that the log holds a
// valid position at every moment. `on_uncut` is called when the cutting fails; the record is then
// appended.
template <class OnUncut>
Saved save_position(int fd, char *record, OnUncut on_uncut) noexcept {
    if (!log_is_full(fd)) return {fq_set_pos(fd, record), false};
    if (write_record(fd, record, 0) < 0) return {-1, true};
    if (ftruncate(fd, kRecordSize) == 0) return {kRecordSize, true};
    on_uncut();
    return {fq_set_pos(fd, record), true};
}

} // namespace halvo::fq
