// sms_fq: reading and saving the position of a side.
#pragma once

#include "fq/format.h"

namespace halvo::fq {

struct OpenSide;

// Where in a log the position was found.
struct LastRecord {
    bool found = false; // a record that can be read
    bool blank = false; // no record holds anything but zeros: a log that never reached the disk
    int64_t at = 0;     // offset of the last whole record
    int32_t left_order = -1; // the data file that the record before it names; -1: not known
    bool stepped = false;    // the last record cannot be read, and the one found is an earlier one
};
// Reads the last whole record of a log of `size` bytes, or the last that can be read: what a power
// failure has left behind it was never acknowledged. Without one, the last as it is. Bytes read of
// it; below 31 when it could not be read from the file.
ssize_t read_last_record(int fd, int64_t size, char *record, LastRecord &last) noexcept;

// As fq_get_pos, for the log of a side just locked. `made_first`: the file held no record, so that
// the position is not one that a transaction saved but the intended start. errno is that of a
// failed read.
int load_position(OpenSide &side, char *record, bool &made_first) noexcept;

// The position in a held record, whose numbers it terminates. False for a damaged record (not nine
// digits, or negative): that and then `seek_message`, when the offset is at fault, are printed.
bool checked_position(const char *path, char *record, Position &at,
                      const char *seek_message) noexcept;

// Sets both numbers of a record. False, with a line, when one does not fit its field.
bool move_position(const char *path, char *record, int64_t order, int64_t offset) noexcept;
// The same for a record that has the order already.
bool move_offset(const char *path, char *record, int64_t order, int64_t offset) noexcept;

struct Saved {
    int result;    // 31, or -1
    bool log_full; // whether the log had passed its limit
};

// Saves nextpos as the new position: as fq_set_pos, but a log that is full or cannot grow is begun
// again, in place. The record is written before the old ones are cut off, so that the log holds a
// valid position at every moment. `tell_uncut` is called when a full log cannot be cut; the record
// is then appended.
Saved save_position(fqtrans *trans, void (*tell_uncut)(const fqtrans *)) noexcept;

} // namespace halvo::fq
