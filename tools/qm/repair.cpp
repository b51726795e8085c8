#include "tools/qm/repair.h"

#include "core/base/process.h"
#include "core/segment/ring.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "tools/frame/attachment.h"
#include "tools/frame/program.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

constexpr int kTimeout = 1000; // milliseconds, for an end that somebody opens at the same time

struct Correction {
    int bit;
    const char *text;
};
constexpr Correction kCorrections[] = {
    {HALVO_RECOVERED_POSITION, "moved the position to where the slots say it is"},
    {HALVO_RECOVERED_MARKS, "took back marked messages"},
    {HALVO_RECOVERED_PARKED, "put the parked messages right"},
};

bool is_dead(int32_t pid) { return pid > 0 && !is_alive(pid); }

// What was done, as bits; 0 when the end belongs to somebody.
int repair_end(int channel, char mode) {
    if (!q_open_wait(channel, mode, kTimeout)) return 0;
    const int done = q_recover(channel, mode);
    q_close(channel, mode);
    return done > 0 ? done : 0;
}

} // namespace

std::vector<std::string> repair(const std::string &key_file) {
    if (const std::string fault = attach_fault(key_file, true); !fault.empty()) throw Error(fault);
    if (const int attached = frx_initialize(key_file.c_str()); attached != ESMS_OK)
        throw Error(text("key file %s: %s", key_file.c_str(), result_text(attached).c_str()));
    std::vector<std::string> lines;
    for (int channel = 0; channel < HALVO_CHANNELS_MAX; ++channel) {
        if (frx_sizeOfBlock(channel) <= 0) continue; // no channel, or not one that can be used
        const halvo_channel *q = q_chnnl2q(channel);
        for (const char mode : {'w', 'r'}) {
            if (!is_dead(load(mode == 'w' ? q->pidp : q->pidg))) continue;
            const int done = repair_end(channel, mode);
            for (const Correction &correction : kCorrections)
                if (done & correction.bit)
                    lines.push_back(text("channel %d %s, %s: %s", channel,
                                         printable(q->qname, sizeof q->qname).c_str(),
                                         mode == 'w' ? "writer" : "reader", correction.text));
        }
    }
    return lines;
}

} // namespace halvo::qm
