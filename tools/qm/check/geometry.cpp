// halvo-qm check: whether rings, buffers and headers lie where they may.
#include "core/segment/ring.h"
#include "tools/frame/text.h"
#include "tools/qm/check/check.h"

namespace halvo::qm {

using namespace tools;

namespace {

// A row of slots that must lie inside the segment.
Faults faults_of_row(const SegmentView &view, uint64_t offset, uint32_t begin, uint64_t length,
                     const char *name) {
    // Positions in it have 32 bits, however large the segment is.
    if (!view.holds(offset + begin, length) || begin + length > UINT32_MAX)
        return {text("%s at %u reach past the end of the segment", name, begin)};
    return {};
}

} // namespace

Geometry geometry_of(const halvo_channel &q) {
    return {load(q.qcnt), load(q.qbsz), load(q.rbufs), load(q.wbufs), load(q.qstart), load(q.qend)};
}

Faults faults_of_geometry(const SegmentView &view, uint64_t offset, const Geometry &at) {
    if (at.qcnt == 0) return {"the ring has no slots"};
    if (at.qbsz < sizeof(qmsg))
        return {
            text("the slot size is %u; a slot's header alone takes %zu", at.qbsz, sizeof(qmsg))};
    Faults faults;
    const uint64_t ring = uint64_t{at.qcnt} * at.qbsz;
    const uint64_t buffers = uint64_t{HALVO_BUFFERS} * at.qbsz;
    if (at.qstart + ring != at.qend)
        faults.push_back(text("the ring ends at %u, but %u slots of %u bytes from %u end at %ju",
                              at.qend, at.qcnt, at.qbsz, at.qstart,
                              static_cast<uintmax_t>(at.qstart + ring)));
    for (const Faults &row : {faults_of_row(view, offset, at.qstart, ring, "the ring's slots"),
                              faults_of_row(view, offset, at.rbufs, buffers, "the read buffers"),
                              faults_of_row(view, offset, at.wbufs, buffers, "the write buffers")})
        faults.insert(faults.end(), row.begin(), row.end());
    return faults;
}

void add_areas(const Geometry &at, uint64_t offset, const std::string &owner,
               std::vector<Area> &areas) {
    const auto add = [&](uint64_t begin, uint64_t length, const char *what) {
        areas.push_back({offset + begin, offset + begin + length, owner + ": " + what});
    };
    const uint64_t buffers = uint64_t{HALVO_BUFFERS} * at.qbsz;
    add(at.rbufs, buffers, "the read buffers");
    add(at.wbufs, buffers, "the write buffers");
    add(at.qstart, uint64_t{at.qcnt} * at.qbsz, "the ring");
}

} // namespace halvo::qm
