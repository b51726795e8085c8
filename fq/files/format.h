// sms_fq: what the files of a queue look like, and the numbers and limits in them.
//
//   data file      item | item | ... | item with state E          no header, no padding
//
//   item           0       4       5          12      16       20        20+n   22+n
//                  | QITM  | state | 7 zeros  | stamp | length | data .. | Z Z |
//
//                  state   W written, not committed   F readable   E end of this data file
//                  stamp   time(NULL) when the item was built, seconds, unsigned 32 bits
//                  length  n, bytes of data, unsigned 32 bits; both little-endian
//
//   position file  record | record | ...                          the last whole one counts
//
//   record         0           9   10       19  20           30   31
//                  | 000000003 |   | 004998211 |  |      first | LF |
//                    file order      offset         label
//
// While a record is held in memory its bytes 9 and 19 are NUL, so that both numbers are C strings.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "halvo/fq.h"

namespace halvo::fq {

// A data file or position file longer than this many bytes is ended or begun again.
inline constexpr int64_t kFileLimit = 5000000;
// Numbers of a position record: at most nine digits.
inline constexpr int kNumberWidth = 9;
inline constexpr int64_t kNumberMax = 999999999;
// A data file that has been cut off within an item is reported after this many seconds.
inline constexpr int32_t kIncompleteSeconds = 1;

// What fq_read_item answers beside ESMS_INVAL, 0 and -1.
inline constexpr int kTooLarge = -2;
inline constexpr int kIncomplete = -100; // to the callers of fq_dequeue it is nothing to read
inline constexpr int kReadExtra = 25;    // added to the length of the data that was read

inline constexpr char kWritten = 'W';
inline constexpr char kCommitted = 'F';
inline constexpr char kEnd = 'E';
inline constexpr char kMagic[] = "QITM";
inline constexpr uint32_t kMagicSize = 4;
inline constexpr char kTrailer[] = "ZZ";
inline constexpr uint32_t kTrailerSize = 2;

struct ItemHeader {
    char magic[4];
    char state;
    uint8_t reserved[7];
    uint32_t stamp;
    uint32_t length;

    bool has_magic() const { return std::memcmp(magic, kMagic, sizeof magic) == 0; }
};
inline constexpr uint32_t kHeaderSize = sizeof(ItemHeader);
inline constexpr uint32_t kStateOffset = offsetof(ItemHeader, state);
static_assert(kStateOffset == 4);
static_assert(offsetof(ItemHeader, reserved) == 5);
static_assert(offsetof(ItemHeader, stamp) == 12);
static_assert(offsetof(ItemHeader, length) == 16);
static_assert(kHeaderSize == 20);
static_assert(kHeaderSize + kTrailerSize == FQ_ITEM_EXTRA);
static_assert(kNumberMax - FQ_ITEM_EXTRA == FQ_ITEM_MAX);

// What stands at a place of a data file, as far as its header tells.
enum class ItemKind {
    written,  // not committed
    readable, // or said to be: its trailer is still to be looked at
    end,      // readers go on with the next file: any other item of length 0
    strange,  // no item begins here, or one in no known state
};
inline ItemKind kind_of(const ItemHeader &header) {
    if (header.state == kWritten && header.has_magic()) return ItemKind::written;
    if (header.length == 0 && header.has_magic()) return ItemKind::end;
    return header.state == kCommitted && header.has_magic() ? ItemKind::readable
                                                            : ItemKind::strange;
}
// Bytes from the beginning of an item to its end.
inline int64_t size_of_item(const ItemHeader &header) {
    return int64_t{header.length} + FQ_ITEM_EXTRA;
}
inline bool is_trailer(const char *bytes) {
    return std::memcmp(bytes, kTrailer, kTrailerSize) == 0;
}

struct PositionRecord {
    char order[kNumberWidth];
    char blank1;
    char offset[kNumberWidth];
    char blank2;
    char label[10];
    char line_feed;
};
inline constexpr int kRecordSize = sizeof(PositionRecord);
inline constexpr int kOrderAt = offsetof(PositionRecord, order);
inline constexpr int kOrderEnd = offsetof(PositionRecord, blank1);
inline constexpr int kOffsetAt = offsetof(PositionRecord, offset);
inline constexpr int kOffsetEnd = offsetof(PositionRecord, blank2);
static_assert(kOrderAt == 0 && kOrderEnd == 9);
static_assert(kOffsetAt == 10 && kOffsetEnd == 19);
static_assert(offsetof(PositionRecord, label) == 20);
static_assert(offsetof(PositionRecord, line_feed) == 30);
static_assert(kRecordSize == FQ_POSITION_SIZE);

// ---- The file order of the next data file: three rules -----------------------------------------
// Kept: the rules differ. Past 99999999 a single-shot enqueue and a reader part ways.

// Commit of a transaction, and the reader's step: 99999999 is followed by 0.
constexpr int32_t next_order_of_commit(int32_t order) {
    return (order > 99999998 ? -1 : order) + 1;
}
// Single-shot enqueue: 99999999 is followed by 100000000, and that by 1.
constexpr int32_t next_order_of_single_shot(int32_t order) {
    return (order > 99999999 ? 0 : order) + 1;
}
// Append: no wrap.
constexpr int32_t next_order_of_append(int32_t order) { return order + 1; }

// Whether file order b comes after a, on the circle of the orders that a commit uses.
constexpr bool comes_after(int32_t a, int32_t b) {
    constexpr int32_t circle = 100000000;
    if (a >= circle || b >= circle || a < 0 || b < 0) return false;
    const int32_t distance = (b - a + circle) % circle;
    return distance > 0 && distance < circle / 2;
}

// ---- Numbers in a record -----------------------------------------------------------------------

// A place in the queue. Valid when neither is negative.
struct Position {
    int32_t order = -1;
    int32_t offset = -1;
    bool valid() const { return order >= 0 && offset >= 0; }
};

// Nine digits, or a minus sign and eight; anything else reads as -1, which is no valid number.
inline int32_t number_in(const char *field) {
    const bool negative = field[0] == '-';
    uint32_t value = 0, largest = 0; // digit
    for (int i = negative ? 1 : 0; i < kNumberWidth; ++i) {
        const uint32_t digit = static_cast<uint8_t>(field[i]) - uint32_t{'0'};
        largest = digit > largest ? digit : largest;
        value = value * 10 + digit;
    }
    if (largest > 9) return -1;
    return negative ? -static_cast<int32_t>(value) : static_cast<int32_t>(value);
}

inline Position position_in(const char *record) {
    return {number_in(record + kOrderAt), number_in(record + kOffsetAt)};
}

// Whether a number fits the nine characters of its field.
constexpr bool fits_field(int64_t number) { return number >= 0 && number <= kNumberMax; }

// Writes nine characters and a NUL behind them. The number must fit (-99999999 .. 999999999).
inline void put_number(char *field, int32_t number) {
    const bool negative = number < 0;
    auto rest = static_cast<uint32_t>(negative ? -number : number);
    for (int i = kNumberWidth - 1; i >= 0; --i, rest /= 10)
        field[i] = static_cast<char>('0' + rest % 10);
    if (negative) field[0] = '-';
    field[kNumberWidth] = '\0';
}
inline void put_order(char *record, int32_t order) { put_number(record + kOrderAt, order); }
inline void put_offset(char *record, int32_t offset) { put_number(record + kOffsetAt, offset); }

// The held form and the form on disk.
inline void terminate_numbers(char *record) { record[kOrderEnd] = record[kOffsetEnd] = '\0'; }
inline void separate_numbers(char *record) { record[kOrderEnd] = record[kOffsetEnd] = ' '; }

// ---- File names --------------------------------------------------------------------------------

// Queue path with a suffix. The path must be at most FQ_PATH_MAX bytes.
struct FileName {
    char text[FQ_NAME_SIZE + 16];
};
inline FileName side_file(const char *path, const char *suffix) {
    FileName name;
    const size_t length = strnlen(path, FQ_PATH_MAX);
    std::memcpy(name.text, path, length);
    std::strcpy(name.text + length, suffix);
    return name;
}
inline FileName data_file(const char *path, int32_t order) {
    FileName name;
    std::snprintf(name.text, sizeof name.text, "%s.%09d", path, static_cast<int>(order));
    return name;
}
inline FileName tail_file(const char *path) { return side_file(path, ".tail"); }
inline FileName head_file(const char *path) { return side_file(path, ".head"); }
inline FileName lock_file(const char *path, char mode) {
    return side_file(path, mode == 'w' ? ".wrlk" : ".rdlk");
}
inline FileName position_file(const char *path, char mode) {
    return mode == 'w' ? tail_file(path) : head_file(path);
}

inline bool usable_path(const char *path) {
    return path && strnlen(path, FQ_PATH_MAX + 1) <= FQ_PATH_MAX;
}

// Whether a writer may be asked for such an item.
inline bool usable_item(const char *path, const void *data, unsigned length) {
    return usable_path(path) && data && length > 0 && length <= FQ_ITEM_MAX;
}

} // namespace halvo::fq
