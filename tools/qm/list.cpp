// halvo-qm list: what stands in a segment.
#include "core/segment/ring.h"
#include "core/segment/rules.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"
#include "tools/qm/view.h"

namespace halvo::qm {

using namespace tools;

namespace {

bool is_held(key_t lock_set, int number) { return semaphore_value(lock_set, number) == 0; }

ChannelInfo info_of(const halvo_channel &q) {
    ChannelInfo info{};
    info.name = printable(q.qname, sizeof q.qname);
    info.type = printable(&q.qtype, 1).c_str()[0];
    info.slots = load(q.qcnt);
    info.slot_size = load(q.qbsz);
    info.waiting = backlog(q.fpcnt, q.fgcnt) + backlog(q.pcnt, q.gcnt);
    info.writer = load(q.pidp);
    info.reader = load(q.pidg);
    info.writer_name = printable(q.pname, sizeof q.pname);
    info.reader_name = printable(q.gname, sizeof q.gname);
    info.rate_limit = load(q.tpsmx);
    return info;
}

} // namespace

std::vector<ChannelInfo> list(const std::string &key_file) {
    const Keys keys(key_file);
    const SegmentView view(keys);
    if (!view.header() || load(view.header()->nchnnl) != view.channels())
        throw Error(
            text("key file %s: the segment has no usable table of channels", key_file.c_str()));
    std::vector<ChannelInfo> channels;
    for (uint32_t i = 0; i < view.channels(); ++i) {
        const halvo_channel *q = view.channel(i);
        if (!q)
            throw Error(text("key file %s: channel %u does not lie inside the segment",
                             key_file.c_str(), i));
        ChannelInfo info = info_of(*q);
        info.writing = is_held(keys.write_locks(), static_cast<int>(i));
        info.reading = is_held(keys.read_locks(), static_cast<int>(i));
        channels.push_back(std::move(info));
    }
    return channels;
}

} // namespace halvo::qm
