// A channel of four small slots whose memory can be put back, and messages that tell whether they
// are whole.
#pragma once

#include "tests/support/messages.h"
#include "tests/support/ring.h"

namespace halvo::test {

constexpr size_t kRoom = 32; // for a message in a slot of the small ring
inline std::string numbered_message(int n) { return numbered_message(n, kRoom); }

class SmallRing {
public:
    static constexpr int kSlots = 4;
    static constexpr int kType = 3; // of every message

    explicit SmallRing(uint32_t slot_size = 16 + kRoom)
        : segment_(SegmentBuilder().channel("MT01", 'M', kSlots, slot_size).build()) {
        segment_.attach();
        q = segment_.channel("MT01");
    }

    halvo_channel *q = nullptr;

    int write(int n) { return test::write(q, numbered_message(n), kType); }

    // Every message that can be read; kTorn for one that is not whole.
    std::vector<int> drain() {
        std::vector<int> numbers;
        Slot slot(q);
        while (numbers.size() < 100 && q_read(q, slot.data()) == ESMS_OK)
            numbers.push_back(number_in(slot.data(), kRoom));
        return numbers;
    }

    // What operations change of the channel: all but the counters of other types.
    using Image = std::vector<uint8_t>;
    Image save() const {
        Image image;
        for_parts([&](uint8_t *at, size_t n) { image.insert(image.end(), at, at + n); });
        return image;
    }
    void restore(const Image &image) {
        const uint8_t *from = image.data();
        for_parts([&](uint8_t *at, size_t n) {
            std::memcpy(at, from, n);
            from += n;
        });
    }

private:
    template <class Use>
    void for_parts(Use use) const {
        auto *start = reinterpret_cast<uint8_t *>(q);
        const size_t counters = offsetof(halvo_channel, tcnt) + (kType + 1) * sizeof(halvo_counter);
        const size_t rest = offsetof(halvo_channel, gclients);
        use(start, counters);
        use(start + rest, q->qend - rest); // the buffers, then the ring
    }

    Segment segment_;
};

} // namespace halvo::test
