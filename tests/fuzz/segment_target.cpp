// A segment with anything in its headers, slots and names, then operations over it.
#include <climits>
#include <iterator>
#include <memory>

#include "core/segment/segment.h"
#include "halvo/status.h"
#include "tests/fuzz/attachment.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"
#include "tests/support/ring_calls.h"
#include "tools/qm/segment.h"

using namespace halvo;
using halvo::fuzz::Input;

namespace {

constexpr int kMostOperations = 48;

// ---- Damage

constexpr uint32_t kFirstChannel = sizeof(halvo_segment);
constexpr uint32_t kSlots = sizeof(halvo_channel); // where the first slots of a channel begin
// clang-format off
constexpr uint32_t kValues[] = {
    0, 1, 3, 5, 17, 20, 64, 512, 4096, kSlots, kSlots + 20, kSlots + 512, kSlots + 2048, kFirstChannel,
    kFirstChannel + 4, 269, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFC, 0xFFFFFFFF};
// clang-format on

uint32_t word_of_segment(Input &input) {
    const uint32_t word = input.below(9);
    return word < 8 ? 4 * word : offsetof(halvo_segment, uptime);
}
// Any word but those of the counters and the clients.
uint32_t word_of_channel(Input &input) {
    constexpr uint32_t kEnd = offsetof(halvo_channel, pcnt);
    constexpr uint32_t kAgain = offsetof(halvo_channel, tpsmx);
    const uint32_t at = 4 * input.byte() % (kEnd + kSlots - kAgain);
    return at < kEnd ? at : kAgain + at - kEnd;
}

uint32_t word_to_damage(Input &input) {
    const uint32_t channel = fuzz::sound_channel(input.below(fuzz::kChannels));
    const uint32_t choice = input.below(4);
    if (choice == 0) return word_of_segment(input);
    if (choice == 1) return input.number<uint32_t>();
    if (choice == 2) return channel + kSlots + 4 * input.number<uint16_t>(); // of the slots
    return channel + word_of_channel(input);
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

// A program takes as many bytes of its slot as it is told.
void use_length(int length, const Memory &slot, uint32_t slot_size) {
    if (length <= 0) return;
    const Memory copy = exactly(slot_size);
    std::memcpy(copy.get(), slot.get() + offsetof(qmsg, data), static_cast<size_t>(length));
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

// A kept input names a call by its place in the table.
void use_ring(Input &input, int channel) {
    static FrxChannel ends[2];
    const test::RingCall &call = test::kRingCalls[input.byte() % std::size(test::kRingCalls)];
    FrxChannel *end = &ends[call.side == 'w'];
    if (call.is_guarded())
        frx_openChannel(end, "fuzz", channel, call.side, 0);
    else
        *end = {channel, call.side};
    halvo_channel *q = checked_channel(channel);
    if (!q && !call.is_guarded()) return;
    const uint32_t slot_size = q ? q->qbsz : 64;
    const int n = input.number<int8_t>(), type = input.number<uint16_t>();
    const Message message = any_message(input, slot_size);
    const uint32_t capacity = static_cast<uint32_t>(n) % slot_size;
    const bool alone = call.gives == test::RingCall::body;
    const Memory room = exactly(alone ? capacity : slot_size), second = exactly(capacity);
    FrxMessage batch[2];
    for (FrxMessage &one : batch) {
        const Memory &body = alone ? &one == batch ? room : second : message.data;
        one = {type, message.length, capacity, body.get()};
    }
    const int result = call.run({q, end, n, type, input.number<int32_t>(), n, message.data.get(),
                                 message.length, room.get(), capacity, batch});
    if (call.gives == test::RingCall::slot) {
        if (q) use_body(q, room);
        if (call.is_guarded()) use_length(result, room, slot_size);
    }
    if (!call.is_guarded()) return;
    frx_view(end, exactly(slot_size).get());
    frx_stat(end);
    frx_statBuf(end, n);
    frx_isCountpartAlive(end, n);
    frx_closeChannel(end);
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
    const Memory document = exactly(128 + 1024 * monitor.channels);
    char text[HALVO_LAST_MESSAGE_SIZE];
    const char mode = "aswf"[input.below(4)];
    const uint32_t printer = input.below(11);
    if (printer == 0) q_statprint_xml(mode, document.get());
    if (printer == 1) q_statprint_json(mode, document.get());
    if (printer == 2) q_statprint_classic(mode);
    if (printer == 3) q_statprint(mode);
    if (printer == 4) q_statprint2(mode);
    if (printer == 5) q_tstatprint("s");
    if (printer == 6) q_clientsprint();
    if (printer == 7) q_statlog(mode);
    if (printer == 8) {
        qm_sprint_last_msg(text);
        qm_last_out_q(q_0());
    }
    if (printer == 9) q_printlogo2(mode);
    const halvo_channel *q = printer == 10 ? checked_channel(any_channel(input)) : nullptr;
    if (q) q_print_rwrw_bufs(q);
}

void operate(Input &input, Monitor &monitor) {
    const int channel = any_channel(input);
    const uint32_t choice = input.below(16);
    if (choice < 6) use_ring(input, channel);
    if (choice == 6) look_at_channel(input, channel);
    if (choice == 7) open_and_recover(input, channel);
    if (choice == 8) damage(input); // by another process, meanwhile
    if (choice == 9) monitor.take_snapshot(input.below(2));
    if (choice == 10) q_settime();
    if (choice > 10) print(input, monitor);
}

// What the queue manager says of it.
void examine() {
    try {
        qm::check("fuzzed");
        qm::list("fuzzed");
    } catch (const qm::Error &) { // the only one that may come out
    }
}

} // namespace

void halvo::fuzz::segment(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool signals = (init_sig(), true);
    Input input(data, size);
    const uint32_t cut = input.below(8) == 0 ? input.number<uint32_t>() % sound_size() / 4 * 4 : 0;
    place_segment(sound_size() - cut);
    for (uint32_t pieces = input.below(16); pieces > 0 && input.more(); --pieces) damage(input);
    examine();
    attach();
    Monitor monitor;
    for (int i = 0; i < kMostOperations && input.more(); ++i) operate(input, monitor);
}
