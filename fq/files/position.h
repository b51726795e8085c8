// sms_fq: reading and saving the position of a side.
#pragma once

#include "fq/files/last_record.h"

namespace halvo::fq {

struct OpenSide;

// As fq_get_pos, for the log of a side just locked. `made_first`: the file held no record, so that
// the position is not one that a transaction saved but the intended start. errno is that of a
// failed read.
int load_position(OpenSide &side, char *record, bool &made_first) noexcept;

// The same when the log ends where the last commit left it, which is read from the log. False when it
// does not, or nothing is known of it.
bool read_guessed_position(OpenSide &side, char *record) noexcept;

// The position in a held record, whose numbers it terminates. False for a damaged record (not nine
// digits, or negative): that and then `seek_message`, when the offset is at fault, are printed.
bool checked_position(const char *path, char *record, Position &at,
                      const char *seek_message) noexcept;

// Sets both numbers of a record. False, with a line, when one does not fit its field.
bool move_position(const char *path, char *record, int64_t order, int64_t offset) noexcept;
// The same for a record that has the order already.
bool move_offset(const char *path, char *record, int64_t order, int64_t offset) noexcept;

struct Saved {
    int result;       // 31, or -1
    bool log_full;    // whether the log had passed its limit
    bool begun_again; // that, or it could not grow, and holds no older positions any more
};

// Saves nextpos as the new position: as fq_set_pos, but a log that is full or cannot grow is begun
// again, in place. The record is written before the old ones are cut off, so that the log holds a
// valid position at every moment. `tell_uncut` is called when a full log cannot be cut; the record
// is then appended.
Saved save_position(fqtrans *trans, void (*tell_uncut)(const fqtrans *)) noexcept;

// Cuts a log that was begun again to the position just saved: the data file that the reader has left
// is deleted, and nobody needs to be told of it any more. When that fails, both records stay.
void keep_last_record(fqtrans *trans) noexcept;

} // namespace halvo::fq
