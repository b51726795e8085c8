#include "tools/qm/check/check.h"

#include <algorithm>
#include <cstring>

#include "core/segment/ring.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

bool is_terminated(const char (&field)[HALVO_NAME_SIZE]) {
    return std::memchr(field, '\0', sizeof field) != nullptr;
}

// A ring that holds garbage has a fault for each of its slots.
constexpr size_t kMostOfAKind = 16;

void append(Faults &all, const std::string &prefix, const Faults &faults) {
    const size_t shown = std::min(faults.size(), kMostOfAKind);
    for (size_t i = 0; i < shown; ++i) all.push_back(prefix + faults[i]);
    if (shown < faults.size())
        all.push_back(prefix + text("%zu more faults like these", faults.size() - shown));
}

Faults faults_of_names(const halvo_channel &q) {
    Faults faults;
    if (!is_terminated(q.qname))
        faults.push_back("the channel's name has no end");
    else if (q.qname[0] == '\0')
        faults.push_back("the channel has no name");
    if (!is_terminated(q.pname)) faults.push_back("the writer's name has no end");
    if (!is_terminated(q.gname)) faults.push_back("the reader's name has no end");
    return faults;
}

Faults faults_of_type_names(const halvo_segment &segment) {
    Faults faults;
    for (int type = 0; type < HALVO_TYPES; ++type)
        if (!is_terminated(segment.qtcnt[type].tname))
            faults.push_back(text("the name of type %d has no end", type));
    return faults;
}

void check_channel(const SegmentView &view, uint32_t number, Faults &faults,
                   std::vector<Area> &areas) {
    const uint32_t offset = load(view.header()->qoffs[number]);
    const halvo_channel *q = view.channel(number);
    if (!q) {
        faults.push_back(text("channel %u: its header at %u does not lie inside the segment of %ju "
                              "bytes",
                              number, offset, static_cast<uintmax_t>(view.size())));
        return;
    }
    const std::string owner =
        text("channel %u %s", number, printable(q->qname, sizeof q->qname).c_str());
    areas.push_back({offset, uint64_t{offset} + sizeof(halvo_channel), owner + ": the header"});
    append(faults, owner + ": ", faults_of_names(*q));
    const Geometry at = geometry_of(*q);
    const Faults geometry = faults_of_geometry(view, offset, at);
    append(faults, owner + ": ", geometry);
    if (!geometry.empty()) return;
    append(faults, owner + ": ", faults_of_slots(*q, at));
    add_areas(at, offset, owner, areas);
}

// Of areas in the order of their begin, each must end before the next one begins.
Faults faults_of_overlap(std::vector<Area> areas) {
    Faults faults;
    std::sort(areas.begin(), areas.end(),
              [](const Area &a, const Area &b) { return a.begin < b.begin; });
    for (size_t i = 1; i < areas.size(); ++i)
        if (areas[i].begin < areas[i - 1].end)
            faults.push_back(
                text("%s overlaps %s", areas[i].owner.c_str(), areas[i - 1].owner.c_str()));
    return faults;
}

} // namespace

std::vector<std::string> check(const std::string &key_file) {
    const Keys keys(key_file);
    const SegmentView view(keys);
    const halvo_segment *segment = view.header();
    if (!segment)
        return {text("the segment has %ju bytes; its header alone takes %zu",
                     static_cast<uintmax_t>(view.size()), sizeof(halvo_segment))};
    const uint32_t channels = load(segment->nchnnl);
    if (channels == 0) return {"the segment has no channels: it was never completed"};
    if (channels > HALVO_CHANNELS_MAX)
        return {text("the segment has %u channels; at most %d are possible", channels,
                     HALVO_CHANNELS_MAX)};

    Faults faults = faults_of_type_names(*segment);
    std::vector<Area> areas{{0, sizeof(halvo_segment), "the segment's header"}};
    for (uint32_t i = 0; i < channels; ++i) check_channel(view, i, faults, areas);
    append(faults, "", faults_of_overlap(areas));
    append(faults, "", faults_of_semaphores(keys, view));
    return faults;
}

} // namespace halvo::qm
