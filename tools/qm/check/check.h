// The parts of check(): what can be wrong with a segment, each fault as one line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qm/view.h"

namespace halvo::qm {

using Faults = std::vector<std::string>;

// An area of the segment that nothing else may use.
struct Area {
    uint64_t begin;
    uint64_t end;
    std::string owner;
};

// The unchanging words of a channel header, copied once, so that what was found sound is what is
// used afterwards.
struct Geometry {
    uint32_t qcnt;
    uint32_t qbsz;
    uint32_t rbufs;
    uint32_t wbufs;
    uint32_t qstart;
    uint32_t qend;
};

Geometry geometry_of(const halvo_channel &q);

// Sizes and offsets. `offset` is the channel's own in the segment. The slots may be looked at only
// when this finds nothing.
Faults faults_of_geometry(const SegmentView &view, uint64_t offset, const Geometry &at);

// The areas of a channel with a sound geometry, all but its header.
void add_areas(const Geometry &at, uint64_t offset, const std::string &owner,
               std::vector<Area> &areas);

// Positions, slot states, lengths and buffers of a channel with a sound geometry. Looks again for
// some 100 milliseconds when what it sees may be a message on its way.
Faults faults_of_slots(const halvo_channel &q, const Geometry &at);

// The lock sets, and the post and request semaphores of 'M' channels.
Faults faults_of_semaphores(const Keys &keys, const SegmentView &view);

} // namespace halvo::qm
