// smsqm_print: everything that is shown of one channel, computed once by the rules of figures.h and
// rendered by all printers, the tables through cells.h.
// No lock is taken and nothing is allocated; each visit moves the channel's rate baseline.
#pragma once

#include "print/figures.h"
#include "print/walk.h"

namespace halvo {

// What counts are shown against: the snapshot, or zeros for absolute counts.
class Baseline {
public:
    static Baseline zeros() noexcept { return Baseline(nullptr); }
    // Zeros when there is none.
    static Baseline of_snapshot() noexcept { return Baseline(snapshot); }
    static Baseline of_mode(char mode) noexcept { return mode == 's' ? of_snapshot() : zeros(); }
    // The image of a channel, which must be one of the segment.
    const halvo_channel &operator[](int channel) const noexcept;

private:
    explicit Baseline(const void *image) noexcept : image_(image) {}
    const void *image_;
};

enum class Rate { none, exact, whole_per_millisecond };

struct Replies {
    int64_t count, errors;
};

struct Facts {
    int channel;
    const halvo_channel *q;
    char name[HALVO_NAME_SIZE + 1];
    char activity[5]; // such as "WR__"
    bool active;
    int64_t rate;
    int64_t backlog, ring_backlog; // ring_backlog is a part of backlog
    int64_t ring_done, file_done, done, errors;
    bool has_replies;
    Replies acks, results;
    int32_t writer, reader; // process ids, of the ring or of the file queue
};

Facts facts_of(const Visit &visit, int32_t now, Rate rate, const Baseline &baseline) noexcept;

// State letters of slots.
struct RingLetters {
    char writing, reading; // at the write and at the read position
};
RingLetters ring_letters(const halvo_channel *q) noexcept;
struct BufferLetters {
    char text[HALVO_BUFFERS + 1];
};
BufferLetters buffer_letters(const halvo_channel *q, uint32_t area) noexcept; // rbufs or wbufs

// Whether idle channels have a row too.
constexpr bool shows_idle(char mode) noexcept { return mode == 's' || mode == 'a'; }

} // namespace halvo
