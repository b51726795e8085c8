#include "tools/mon/look/sample.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "core/base/process.h"
#include "core/segment/ring.h"
#include "core/segment/rules.h"
#include "tools/frame/attachment.h"
#include "tools/frame/charset.h"
#include "tools/frame/clock.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::mon {

namespace {

struct Words {
    const char *word, *meaning;
};
constexpr Words kWords[kTroubles] = {
    {"ok", "nothing wants a look"},
    {"throttled", "reads are refused for the rate limit"},
    {"growing", "more and more messages for a minute"},
    {"old", "the oldest message has waited for a minute"},
    {"stalled", "the reader is there and takes nothing"},
    {"no reader", "messages wait and nobody holds the reader's end"},
    {"full", "the ring is full and writers wait"},
    {"dead end", "a process that is gone holds an end"},
    {"damaged", "the header cannot be followed"},
};

constexpr int32_t kThrottledSeconds = 10; // a reader that waits tries more often

// The values of a lock set, one for each channel, and who changed one last.
class Locks {
public:
    explicit Locks(int set) : set_(set) {
        semid_ds state{};
        if (set < 0 || semctl(set, 0, IPC_STAT, &state) != 0) return;
        values_.resize(state.sem_nsems);
        if (semctl(set, 0, GETALL, values_.data()) != 0) values_.clear();
    }
    Held held(int channel) const {
        const auto index = static_cast<size_t>(channel);
        if (index >= values_.size()) return Held::unknown;
        return values_[index] == 0 ? Held::yes : Held::no;
    }
    int32_t holder(int channel) const { return std::max(semctl(set_, channel, GETPID), 0); }

private:
    int set_;
    std::vector<unsigned short> values_;
};

// Each process is asked for once in a sample.
class Processes {
public:
    bool alive(int32_t pid) {
        const auto [known, fresh] = known_.try_emplace(pid, false);
        if (fresh) known->second = is_alive(pid);
        return known->second;
    }

private:
    std::map<int32_t, bool> known_;
};

struct Look {
    const qm::SegmentView &view;
    int32_t now; // seconds since the epoch
    Locks readers, writers;
    Processes processes;
};

EndSample file_end(int32_t pid, int32_t stamp, Processes &processes) {
    EndSample end;
    end.pid = pid;
    end.stamp = stamp;
    end.alive = processes.alive(pid);
    return end;
}

EndSample ring_end(const Locks &locks, int channel, const char (&name)[HALVO_NAME_SIZE],
                   int32_t pid, int32_t stamp, Processes &processes) {
    EndSample end;
    end.name = shown_name(name, sizeof name);
    end.held = locks.held(channel);
    end.pid = pid;
    // A process that has just opened the end did not write its id yet.
    if (end.held == Held::yes)
        if (const int32_t holder = locks.holder(channel); holder > 0) end.pid = holder;
    end.stamp = stamp;
    end.alive = processes.alive(end.pid);
    return end;
}

// As the library judges it: what it can use is not damaged.
std::string damage_of(const qm::SegmentView &view, const halvo_channel *q, const Ring &ring) {
    if (!q) return "its header does not lie in the segment";
    return lies_within(ring, view.room_behind(q)) ? "" : "its ring does not lie in the segment";
}

void read_ring(ChannelSample &out, const halvo_channel &q, const Ring &ring, int32_t now) {
    out.slots = load(q.qcnt);
    out.slot_bytes = ring.size;
    // The reader's count first: messages that pass meanwhile must not make a depth below 0.
    out.got = q.gcnt.count;
    out.file_got = q.fgcnt.count;
    out.put = q.pcnt.count;
    out.file_put = q.fpcnt.count;
    out.errors = q.gcnt.ecount;
    out.full = load_state(slot_at(&q, position_in(ring, load(q.wpos)))) != HALVO_SLOT_FREE;
    out.parked = load(q.pbuffs);
    out.waiting_writers = load(q.wwait);
    out.waiting_readers = load(q.rwait);
    out.rate_limit = load(q.tpsmx);
    // Only a later read takes the flag back, and it may never come: a refusal is of now while it is new.
    out.throttled = load(q.throttled) != 0 && age(now, load(q.throttletime)) < kThrottledSeconds;
    out.last_in = load(q.lastin);
    out.last_out = load(q.lastout);
    out.last_error = load(q.errtime);
}

ChannelSample sample_of(Look &look, int number) {
    ChannelSample out;
    out.number = number;
    const halvo_channel *q = look.view.channel(static_cast<uint32_t>(number));
    const Ring ring = q ? ring_of(q) : Ring{};
    out.damage = damage_of(look.view, q, ring);
    if (q) {
        out.raw_name.assign(q->qname, strnlen(q->qname, sizeof q->qname));
        out.name = shown_name(q->qname, sizeof q->qname);
        out.type = q->qtype;
    }
    if (!q || !out.damage.empty()) return out;
    read_ring(out, *q, ring, look.now);
    out.writer =
        ring_end(look.writers, number, q->pname, load(q->pidp), load(q->wtime), look.processes);
    out.reader =
        ring_end(look.readers, number, q->gname, load(q->pidg), load(q->rtime), look.processes);
    out.file_writer = file_end(load(q->pidpf), load(q->fwtime), look.processes);
    out.file_reader = file_end(load(q->pidgf), load(q->frtime), look.processes);
    return out;
}

int set_of(key_t key) { return semget(key, 0, 0); }

} // namespace

const char *word_of(Trouble trouble) { return kWords[static_cast<int>(trouble)].word; }
const char *meaning_of(Trouble trouble) { return kWords[static_cast<int>(trouble)].meaning; }

double ChannelSample::fill() const {
    const double part = slots > 0 ? static_cast<double>(ring_depth()) / slots : 0;
    return std::clamp(part, 0.0, 1.0);
}

int Sample::in_trouble() const {
    return static_cast<int>(
        std::count_if(channels.begin(), channels.end(), [](const ChannelSample &channel) {
            return channel.trouble != Trouble::none;
        }));
}

std::string shown_name(const char *field, size_t size) {
    return tools::to_utf8(tools::printable(field, size));
}

void Sampler::attach(int id) {
    view_.reset();
    view_ = std::make_unique<qm::SegmentView>(id);
}

// Whether the same segment and locks stand there is asked each time: that costs four system calls.
void Sampler::find_segment(Sample &sample) {
    try {
        const qm::Keys keys(key_file_);
        const int id = qm::find_segment(keys.segment());
        if (id < 0) throw qm::Error("no segment");
        if (!view_ || view_->id() != id) attach(id);
        if (!view_->header()) throw qm::Error("the segment is too small to be one of queues");
        if (view_->channels() == 0) throw qm::Error("the segment is not complete"); // being made
        read_locks_ = set_of(keys.read_locks());
        write_locks_ = set_of(keys.write_locks());
    } catch (const qm::Error &error) {
        view_.reset(); // or its memory would stay as long as somebody looks at it
        sample.fault = tools::attach_fault(key_file_, false);
        if (sample.fault.empty()) sample.fault = key_file_ + ": " + error.what();
    }
}

Sample Sampler::take() {
    Sample sample;
    sample.taken = tools::monotonic();
    sample.time = std::time(nullptr);
    find_segment(sample);
    if (!view_) return sample;
    sample.up = true;
    sample.id = view_->id();
    sample.bytes = view_->size();
    sample.started = load(view_->header()->uptime);
    sample.clock = load(view_->header()->now);
    Look look{
        *view_, static_cast<int32_t>(sample.time), Locks(read_locks_), Locks(write_locks_), {}};
    const auto channels = static_cast<int>(view_->channels());
    sample.channels.reserve(static_cast<size_t>(channels));
    for (int i = 0; i < channels; ++i) sample.channels.push_back(sample_of(look, i));
    return sample;
}

std::vector<TypeCount> types_of(const qm::SegmentView &view, int number) {
    std::vector<TypeCount> types;
    const halvo_channel *q = view.channel(static_cast<uint32_t>(number));
    for (int type = 1; q && type < HALVO_TYPES; ++type) {
        const halvo_counter &counter = q->tcnt[type];
        if (counter.count == 0 && counter.ecount == 0) continue;
        const auto &name = view.header()->qtcnt[type].tname;
        types.push_back({type, shown_name(name, sizeof name), counter.count, counter.ecount});
    }
    return types;
}

} // namespace halvo::mon
