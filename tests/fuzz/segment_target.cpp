// A segment with anything in its headers, slots and names, then operations over it.
#include <climits>
#include <csignal>
#include <iterator>
#include <memory>

#include "core/attach.h"
#include "core/ring.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "halvo/status.h"
#include "tests/fuzz/attachment.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

using namespace halvo;
using halvo::fuzz::Input;

namespace {

constexpr int kMostOperations = 48;

// ---- Damage

constexpr uint32_t kChannelWords[] = {
    offsetof(halvo_channel, qcnt),     offsetof(halvo_channel, qbsz),
    offsetof(halvo_channel, qname),    offsetof(halvo_channel, qtype),
    offsetof(halvo_channel, rbufs),    offsetof(halvo_channel, wbufs),
    offsetof(halvo_channel, rpos),     offsetof(halvo_channel, wpos),
    offsetof(halvo_channel, qend),     offsetof(halvo_channel, qstart),
    offsetof(halvo_channel, pidp),     offsetof(halvo_channel, pidg),
    offsetof(halvo_channel, pbuffs),   offsetof(halvo_channel, wwait),
    offsetof(halvo_channel, rwait),    offsetof(halvo_channel, tpsmx),
    offsetof(halvo_channel, tpsstart), offsetof(halvo_channel, throttled),
    offsetof(halvo_channel, lastin),   offsetof(halvo_channel, lastout),
    offsetof(halvo_channel, ackq),     offsetof(halvo_channel, acktype),
    offsetof(halvo_channel, rslttype), offsetof(halvo_channel, throttletime)};

constexpr uint32_t kSegmentWords[] = {
    offsetof(halvo_segment, nchnnl),    offsetof(halvo_segment, now),
    offsetof(halvo_segment, qoffs),     offsetof(halvo_segment, qoffs) + 4,
    offsetof(halvo_segment, qoffs) + 8, offsetof(halvo_segment, qoffs) + 12,
    offsetof(halvo_segment, uptime)};

constexpr uint32_t kFirstChannel = sizeof(halvo_segment);
constexpr uint32_t kSlots = sizeof(halvo_channel); // where the first slots of a channel begin
constexpr uint32_t kValues[] = {0,
                                1,
                                3,
                                5,
                                17,
                                20,
                                64,
                                512,
                                4096,
                                kSlots,
                                kSlots + 20,
                                kSlots + 512,
                                kSlots + 2048,
                                kFirstChannel,
                                kFirstChannel + 4,
                                269,
                                0x7FFFFFFF,
                                0x80000000,
                                0xFFFFFFFC,
                                0xFFFFFFFF};

// Where channel n is in a sound segment.
uint32_t sound_channel(uint32_t n) {
    constexpr uint32_t kSizes[] = {sizeof(halvo_channel) + 14 * 512,
                                   sizeof(halvo_channel) + 13 * 20};
    uint32_t at = kFirstChannel;
    for (uint32_t i = 0; i < n; ++i) at += kSizes[i];
    return at;
}

uint32_t word_to_damage(Input &input) {
    const uint32_t channel = sound_channel(input.below(fuzz::kChannels));
    switch (input.below(4)) {
    case 0:
        return kSegmentWords[input.below(std::size(kSegmentWords))];
    case 1:
        return input.number<uint32_t>();
    case 2: // a word of the slots
        return channel + kSlots + 4 * input.number<uint16_t>();
    default:
        return channel + kChannelWords[input.below(std::size(kChannelWords))];
    }
}

void damage(Input &input) {
    const uint32_t at = word_to_damage(input);
    uint32_t value = input.near(kValues);
    if (at > fuzz::placed_size() - sizeof value) return;
    uint32_t old = 0;
    std::memcpy(&old, fuzz::placed() + at, sizeof old);
    if (input.below(4) == 0) value += old; // a little beside what is right
    std::memcpy(fuzz::placed() + at, &value, sizeof value);
}

// ---- Operations

int any_channel(Input &input) {
    static constexpr int kNumbers[] = {0,  1,   2,   0,   1,   2,       3,
                                       -1, 255, 256, 268, 269, INT_MAX, INT_MIN};
    return kNumbers[input.below(std::size(kNumbers))];
}

// Memory of exactly the size that a call may use, so that one byte more is found.
using Memory = std::unique_ptr<char[]>;
Memory exactly(size_t size) { return Memory(new char[size]()); }

// What a reader does with a slot: takes its body, as long as the slot says and can be.
void use_body(const halvo_channel *q, const Memory &slot) {
    const auto *image = reinterpret_cast<const qmsg *>(slot.get());
    const Memory copy = exactly(q->qbsz);
    std::memcpy(copy.get(), body(image), body_length(q->qbsz, image));
}

struct Message {
    uint32_t length;
    Memory data;
};
Message any_message(Input &input, uint32_t slot_size) {
    const uint32_t choice = input.below(4);
    const uint32_t length = choice == 0   ? slot_size - 16
                            : choice == 1 ? slot_size - 15
                                          : input.byte();
    return {length, exactly(length)};
}

void write_slots(Input &input, halvo_channel *q) {
    const Message message = any_message(input, q->qbsz);
    const int type = input.number<uint16_t>();
    const int index = input.number<int8_t>();
    switch (input.below(11)) {
    case 9: {
        qmsg *slot = nullptr;
        if (q_reserve(q, message.length, &slot) == ESMS_OK)
            std::memcpy(body(slot), message.data.get(), message.length);
        q_publish(q, type, static_cast<uint32_t>(index));
        break;
    }
    case 0:
        q_write_mark(q, type, message.data.get(), message.length);
        break;
    case 1:
        q_write_mark_at(q, type, message.data.get(), message.length, static_cast<uint32_t>(index));
        break;
    case 2:
        q_write_commit(q);
        break;
    case 3:
        q_write_commit_all(q);
        break;
    case 4:
        q_write_rollback(q);
        break;
    case 5:
        q_write_rollback_all(q);
        break;
    case 6:
        q_write_buf(q, type, message.data.get(), message.length, index);
        break;
    case 7:
        q_write_buf_commit(q, index);
        break;
    case 8:
        q_write_buf_rollback(q, index);
        break;
    default:
        q_write(q, type, message.data.get(), message.length);
    }
    q_writable_count(q);
    q_writeview(q, exactly(q->qbsz).get());
}

void read_slots(Input &input, halvo_channel *q) {
    const Memory slot = exactly(q->qbsz);
    const int n = input.number<int8_t>();
    switch (input.below(10)) {
    case 7: {
        const qmsg *next = nullptr;
        if (q_peek(q, &next) == ESMS_OK)
            std::memcpy(slot.get(), body(next), body_length(q->qbsz, next));
        q_release(q, n);
        break;
    }
    case 8: {
        const auto capacity = static_cast<uint32_t>(n) % q->qbsz;
        q_read_body(q, nullptr, exactly(capacity).get(), capacity, nullptr);
        break;
    }
    case 0:
        q_read_mark(q, n);
        break;
    case 1:
        q_read_markedmsg(q, n, slot.get());
        break;
    case 2:
        q_read_commit(q, n, input.number<int32_t>());
        break;
    case 3:
        q_read_commit_with_error(q, n, "E1");
        break;
    case 4:
        q_read_rollback(q);
        break;
    case 5:
        q_read_buf(q, slot.get(), n);
        break;
    case 6:
        q_read_buf_clear(q, n);
        break;
    default:
        q_read(q, slot.get());
    }
    use_body(q, slot);
    q_readview(q, slot.get());
    use_body(q, slot);
    q_read_markedcount(q);
}

void look_at_channel(Input &input, int channel) {
    const int index = input.number<int16_t>();
    sem_postx(channel);
    sem_rqst(channel);
    frx_sizeOfBlock(channel);
    frx_countOfBlocks(channel);
    frx_sizeOfData(channel);
    frx_getCount(channel);
    frx_gcount(channel);
    frx_pcount(channel);
    frx_pcountFor(channel, index);
    frx_resetPCountFor(channel, index);
    q_name2chnnl(input.below(2) ? "MT01" : input.bytes(24).c_str());
    if (halvo_channel *q = checked_channel(channel)) {
        q_pcount_per_type(q, index);
        q_getcount(q);
        q_check_tps(q);
    }
}

void open_and_recover(Input &input, int channel) {
    static constexpr char kModes[] = {'r', 'w', 'x', '?'};
    const char mode = kModes[input.below(4)];
    q_open(channel, mode);
    q_recover(channel, mode);
    if (input.below(2)) q_close(channel, mode);
}

// A program takes as many bytes of its slot as it is told.
void use_length(int length, const Memory &slot, uint32_t slot_size) {
    if (length <= 0) return;
    const Memory copy = exactly(slot_size);
    std::memcpy(copy.get(), slot.get() + offsetof(qmsg, data), static_cast<size_t>(length));
}

// The guarded interface; a wait is interrupted at once.
void guarded_operation(Input &input, int channel) {
    static FrxChannel handles[2];
    const char side = input.below(2) ? 'w' : 'r';
    FrxChannel *handle = &handles[side == 'w'];
    frx_openChannel(handle, "fuzz", channel, side, 0);
    const halvo_channel *q = checked_channel(channel);
    const uint32_t slot_size = q ? q->qbsz : 64;
    const Memory slot = exactly(slot_size);
    const Message message = any_message(input, slot_size);
    const int n = input.number<int8_t>();
    frx_view(handle, slot.get());
    frx_stat(handle);
    frx_statBuf(handle, n);
    frx_isCountpartAlive(handle, n);
    FrxMessage batch[] = {{n, message.length, slot_size, message.data.get()},
                          {n, message.length, slot_size, message.data.get()}};
    const qmsg *next = nullptr;
    qmsg *room = nullptr;
    switch (input.below(15)) {
    case 11:
        frx_writeMany(handle, batch, 2, n);
        break;
    case 12:
        batch[0].data = batch[1].data = slot.get();
        frx_readMany(handle, batch, 2, n);
        break;
    case 13:
        frx_peek(handle, &next, n);
        frx_release(handle, n);
        frx_readBody(handle, nullptr, slot.get(), slot_size, n);
        break;
    case 14:
        frx_reserve(handle, message.length, &room, n);
        frx_publish(handle, n, message.length);
        break;
    case 0:
        frx_write(handle, n, message.data.get(), message.length, n);
        break;
    case 1:
        frx_writeMark(handle, n, message.data.get(), message.length, n);
        break;
    case 2:
        frx_writeBuf(handle, n, message.data.get(), message.length, n & 7, n);
        break;
    case 3:
        frx_writeCommit(handle);
        break;
    case 4:
        frx_writeBufCommit(handle, n);
        break;
    case 5:
        frx_writeBufRollback(handle, n);
        break;
    case 6:
        use_length(frx_read(handle, slot.get(), n), slot, slot_size);
        break;
    case 7:
        use_length(frx_readBuf(handle, slot.get(), n, n & 7), slot, slot_size);
        break;
    case 8:
        frx_readMark(handle, n, n);
        break;
    case 9:
        frx_readMarked(handle, n, slot.get());
        break;
    case 10:
        frx_readCommit(handle, n);
        break;
    default:
        frx_readRollback(handle);
        frx_writeRollback(handle);
    }
    frx_closeChannel(handle);
}

// What a monitoring program has: rates and counts are measured against it.
struct Monitor {
    size_t channels = 0; // as it found them when it attached
    Memory last, image;

    Monitor() {
        if (const halvo_segment *segment = attached_segment())
            channels = static_cast<size_t>(channel_count(segment));
        last = exactly(channels * sizeof(halvo_counter));
    }
    ~Monitor() {
        lastcheck = nullptr;
        snapshot = nullptr;
    }
    size_t size() const { return sizeof(halvo_segment) + channels * sizeof(halvo_channel); }

    void take_snapshot(size_t less) {
        if (!image) image = exactly(size());
        q_snapshot(image.get(), static_cast<int>(size() - less));
        lastcheck = reinterpret_cast<halvo_counter *>(last.get());
        snapshot = image.get();
    }
};

void print(Input &input, const Monitor &monitor) {
    static constexpr char kModes[] = {'a', 's', 'w', 'f'};
    const char mode = kModes[input.below(4)];
    const Memory document = exactly(128 + 1024 * monitor.channels);
    char text[HALVO_LAST_MESSAGE_SIZE];
    switch (input.below(10)) {
    case 0:
        q_statprint_xml(mode, document.get());
        break;
    case 1:
        q_statprint_json(mode, document.get());
        break;
    case 2:
        q_statprint_classic(mode);
        break;
    case 3:
        q_statprint(mode);
        break;
    case 4:
        q_statprint2(mode);
        break;
    case 5:
        q_tstatprint("s");
        break;
    case 6:
        q_clientsprint();
        break;
    case 7:
        q_statlog(mode);
        break;
    case 8:
        qm_sprint_last_msg(text);
        qm_last_out_q(q_0());
        break;
    default:
        q_printlogo2(mode);
        if (const halvo_channel *q = checked_channel(any_channel(input))) q_print_rwrw_bufs(q);
    }
}

void operate(Input &input, Monitor &monitor) {
    const int channel = any_channel(input);
    switch (input.below(16)) {
    case 0:
    case 1:
        if (halvo_channel *q = checked_channel(channel)) write_slots(input, q);
        break;
    case 2:
    case 3:
        if (halvo_channel *q = checked_channel(channel)) read_slots(input, q);
        break;
    case 4:
        look_at_channel(input, channel);
        break;
    case 5:
        open_and_recover(input, channel);
        break;
    case 6:
    case 7:
        guarded_operation(input, channel);
        break;
    case 8:
        damage(input); // by another process, meanwhile
        break;
    case 9:
        monitor.take_snapshot(input.below(2));
        break;
    case 10:
        q_settime();
        break;
    default:
        print(input, monitor);
    }
}

} // namespace

void halvo::fuzz::segment(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool signals = (init_sig(), true);
    Input input(data, size);
    const uint32_t cut = input.below(8) == 0 ? input.number<uint32_t>() % sound_size() / 4 * 4 : 0;
    place_segment(sound_size() - cut);
    for (uint32_t pieces = input.below(16); pieces > 0 && input.more(); --pieces) damage(input);
    attach();
    Monitor monitor;
    for (int i = 0; i < kMostOperations && input.more(); ++i) operate(input, monitor);
}
