// Where the parts of a planned segment come to lie. Offsets are computed in 64 bits and fit 32 bits
// once first_fault() has found nothing.
#pragma once

#include <cstdint>

#include "tools/qm/segment.h"

namespace halvo::qm {

// A channel is: header, five read buffers, five write buffers, ring. The ring comes last, so that
// looking one slot past the write buffers still lands inside the channel.
struct ChannelLayout {
    uint64_t rbufs;
    uint64_t wbufs;
    uint64_t qstart;
    uint64_t qend;
    uint64_t size; // of the whole channel, rounded up
};

ChannelLayout layout_of(const ChannelPlan &channel);

// Offset of the first channel; the others follow at the sum of the sizes before them.
uint64_t first_channel_offset();

} // namespace halvo::qm
