// halvo-qm check: slot states and positions of rings that stand still.
#include <unistd.h>

#include <array>
#include <optional>

#include "core/segment/ring.h"
#include "tools/frame/text.h"
#include "tools/qm/check/check.h"

namespace halvo::qm {

using namespace tools;

namespace {

// A picture of a running ring may be torn: a state is stored before its position. A fault counts
// only in a picture that stands still over several looks, longer than a busy machine keeps a
// process from running between two stores.
constexpr int kLooks = 40;
constexpr int kStillLooks = 10;
constexpr useconds_t kBetweenLooks = 10000;

// What moves in a channel, with two low counter words that tell a ring that came back to the same
// positions from one that stood still.
struct Picture {
    uint32_t rpos;
    uint32_t wpos;
    int32_t pbuffs;
    uint32_t put;
    uint32_t got;
    std::vector<int32_t> ring;
    std::array<int32_t, HALVO_BUFFERS> write_buffers;
    bool operator==(const Picture &) const = default;
};

bool is_occupied(int32_t state) {
    return state == HALVO_SLOT_READABLE || state == HALVO_SLOT_MARKED;
}

Picture picture_of(const halvo_channel &q, const Geometry &at) {
    Picture picture{};
    picture.rpos = load(q.rpos);
    picture.wpos = load(q.wpos);
    picture.pbuffs = load(q.pbuffs);
    picture.put = static_cast<uint32_t>(q.pcnt.count);
    picture.got = static_cast<uint32_t>(q.gcnt.count);
    picture.ring.reserve(at.qcnt);
    for (uint32_t i = 0; i < at.qcnt; ++i)
        picture.ring.push_back(load_state(slot_at(&q, at.qstart + i * at.qbsz)));
    for (uint32_t i = 0; i < HALVO_BUFFERS; ++i)
        picture.write_buffers[i] = load_state(slot_at(&q, at.wbufs + i * at.qbsz));
    return picture;
}

// Slot number of a position, if it is one of the ring's.
std::optional<uint32_t> index_of(uint32_t position, const Geometry &at) {
    if (position < at.qstart || position >= at.qend) return std::nullopt;
    if ((position - at.qstart) % at.qbsz != 0) return std::nullopt;
    return (position - at.qstart) / at.qbsz;
}

// From rpos on: marked slots, readable slots, and from wpos on free ones. Among the free ones there
// may be pending ones anywhere, since a writer may mark any of them.
Faults faults_of_order(const Picture &picture, const Geometry &at) {
    Faults faults;
    const auto first = index_of(picture.rpos, at);
    const auto end = index_of(picture.wpos, at);
    if (!first) faults.push_back(text("rpos %u is no slot of the ring", picture.rpos));
    if (!end) faults.push_back(text("wpos %u is no slot of the ring", picture.wpos));
    if (!faults.empty()) return faults;

    uint32_t occupied = (*end + at.qcnt - *first) % at.qcnt;
    if (occupied == 0 && is_occupied(picture.ring[*first])) occupied = at.qcnt; // full, not empty
    int32_t previous = HALVO_SLOT_MARKED;
    for (uint32_t k = 0; k < at.qcnt; ++k) {
        const auto i = static_cast<uint32_t>((uint64_t{*first} + k) % at.qcnt);
        const int32_t state = picture.ring[i];
        if (k >= occupied) {
            if (is_occupied(state))
                faults.push_back(text("slot %u holds a message outside rpos .. wpos", i));
            continue;
        }
        if (!is_occupied(state))
            faults.push_back(text("slot %u holds no message between rpos and wpos", i));
        else if (state == HALVO_SLOT_MARKED && previous == HALVO_SLOT_READABLE)
            faults.push_back(text("slot %u is marked behind one that is not", i));
        previous = state;
    }
    return faults;
}

Faults faults_of_parked(const Picture &picture) {
    int32_t held = 0;
    for (const int32_t state : picture.write_buffers) held += state == HALVO_SLOT_READABLE;
    if (picture.pbuffs == held) return {};
    return {text("pbuffs is %d, but %d write buffers hold a message", picture.pbuffs, held)};
}

Faults faults_of_picture(const Picture &picture, const Geometry &at) {
    Faults faults = faults_of_order(picture, at);
    for (std::string &fault : faults_of_parked(picture)) faults.push_back(std::move(fault));
    return faults;
}

// What is a fault also in a running channel.
Faults faults_of_slot(const qmsg &slot, bool is_buffer, const std::string &name, uint32_t qbsz) {
    const int32_t state = load_state(&slot);
    if (state == HALVO_SLOT_FREE) return {};
    const bool known = is_buffer ? state == HALVO_SLOT_READABLE
                                 : is_occupied(state) || state == HALVO_SLOT_PENDING;
    if (!known) return {text("%s has the unknown state %d", name.c_str(), state)};
    const uint32_t length = load(slot.len);
    const auto most = static_cast<uint32_t>(qbsz - sizeof(qmsg));
    if (length >= 1 && length <= most) return {};
    return {text("%s holds %u bytes; 1 to %u are possible", name.c_str(), length, most)};
}

void add_slots(const halvo_channel &q, uint32_t begin, uint32_t count, uint32_t qbsz,
               const char *name, bool is_buffer, Faults &faults) {
    for (uint32_t i = 0; i < count; ++i)
        for (std::string &fault : faults_of_slot(*slot_at(&q, begin + i * qbsz), is_buffer,
                                                 text("%s %u", name, i), qbsz))
            faults.push_back(std::move(fault));
}

Faults lasting_faults_of_picture(const halvo_channel &q, const Geometry &at) {
    Picture picture = picture_of(q, at);
    int still = 0;
    for (int look = 0; look < kLooks; ++look) {
        Faults faults = faults_of_picture(picture, at);
        if (faults.empty() || still == kStillLooks) return faults;
        usleep(kBetweenLooks);
        Picture next = picture_of(q, at);
        still = next == picture ? still + 1 : 0;
        picture = std::move(next);
    }
    return {}; // messages pass all the time, so the positions serve
}

} // namespace

Faults faults_of_slots(const halvo_channel &q, const Geometry &at) {
    Faults faults;
    add_slots(q, at.qstart, at.qcnt, at.qbsz, "slot", false, faults);
    add_slots(q, at.rbufs, HALVO_BUFFERS, at.qbsz, "read buffer", true, faults);
    add_slots(q, at.wbufs, HALVO_BUFFERS, at.qbsz, "write buffer", true, faults);
    for (std::string &fault : lasting_faults_of_picture(q, at)) faults.push_back(std::move(fault));
    return faults;
}

} // namespace halvo::qm
