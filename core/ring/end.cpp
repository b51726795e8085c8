// sms_shm: the tables of what this process expects of the channels.
#include "core/ring/end.h"

namespace halvo {

ExpectedTable expected_of_writers;
ExpectedTable expected_of_readers;

void forget_channels() noexcept {
    for (ExpectedTable *table : {&expected_of_writers, &expected_of_readers})
        for (ExpectedWords &place : *table) place.q = nullptr;
}

void expect_ring(const halvo_channel *q, ExpectedTable &table) noexcept {
    ExpectedWords &place = place_of(q, table);
    const Ring ring = ring_of(q);
    if (place.q == q) place.ring = lies_within(ring, room_behind(q)) ? ring : Ring{};
}

void expect_channels() noexcept {
    const halvo_segment *segment = attached_segment();
    const int channels = segment ? channel_count(segment) : 0;
    for (ExpectedTable *table : {&expected_of_writers, &expected_of_readers})
        for (int channel = 0; channel < channels; ++channel)
            if (const halvo_channel *q = header_of(channel)) {
                place_of(q, *table).q = q;
                expect_ring(q, *table);
            }
}

} // namespace halvo
