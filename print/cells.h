// smsqm_print: pieces of the terminal tables, each printing some of the facts of facts.h to standard
// output.
#pragma once

#include "print/facts.h"

namespace halvo {

void print_attribute(int attribute) noexcept; // ESC [ attribute m; 0 resets
// The attributes of a record that are greater than 0; none for null.
void print_attributes(const halvo_print_option *option) noexcept;

// "WR__" and so on, then the mark of a throttled channel, or a blank in its place.
void print_activity(const Facts &facts) noexcept;

// Name, number and type in the fixed table and in rows without an indent of their own. A name that
// begins with `flush_left` stands one place further left than the others; where that is null, one that
// begins with `indented` stands further right.
struct NameCell {
    const char *flush_left, *indented;
    int width;
};
void print_name(const Facts &facts, const NameCell &cell) noexcept;
bool has_prefix(const char *name, const char *prefix) noexcept;

constexpr NameCell kTableName{"XCN", nullptr, 13};
constexpr NameCell kTypesName{nullptr, "snd", 11};

// Slots at the write and read position, a blank, write buffers, a blank, read buffers.
void print_slots(const halvo_channel *q) noexcept;

// "%7lld" of the messages of all types, or blanks for 0, behind a blank.
void print_total(const halvo_channel *q) noexcept;

} // namespace halvo
