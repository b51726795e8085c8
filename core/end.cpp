#include "core/end.h"

#include "core/attach.h"

namespace halvo {

KnownChannel known_channels[kKnownPlaces];

void forget_channels() noexcept {
    for (KnownChannel &known : known_channels) {
        known.q = nullptr;
        known.reader.heartbeat = known.writer.heartbeat = INT32_MIN;
    }
}

void learn_channels() noexcept {
    const halvo_segment *segment = attached_segment();
    const int channels = segment ? channel_count(segment) : 0;
    for (int channel = 0; channel < channels; ++channel) {
        const halvo_channel *q = checked_channel(channel);
        if (!q) continue;
        KnownChannel &place = place_of(q);
        place.at = geometry_of(q);
        place.q = q;
    }
}

} // namespace halvo
