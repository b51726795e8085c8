// A process that uses the guarded interface on a small segment.
#pragma once

#include <gtest/gtest.h>

#include "halvo/frx.h"
#include "tests/support/capture.h"
#include "tests/support/machine.h"
#include "tests/support/peer.h"
#include "tests/support/ring.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {

// frx_initialize without its lines. The monitor thread prints one of its own when it starts: wait
// for that, or it would get into what a test captures later.
inline int initialise(const Segment &segment) {
    const StdoutCapture capture;
    const int result = frx_initialize(segment.key_file().c_str());
    while (capture.bytes().find("Service Started.\n") == std::string::npos) usleep(1000);
    return result;
}

// Starts the library in this process and opens an end; false when that fails.
inline bool start_with(const Segment &segment, FrxChannel &end, char side, int channel = 0) {
    return initialise(segment) == ESMS_OK &&
           frx_openChannel(&end, "process", channel, side, 20000) == ESMS_OK;
}

inline int frx_write(FrxChannel *end, const std::string &text, int timeout) {
    return ::frx_write(end, 1, text.data(), static_cast<uint32_t>(text.size()), timeout);
}

// Two channels, both ends of the first open.
class FrxTest : public testing::Test {
protected:
    Segment segment = two_channels();
    FrxChannel writer{}, reader{};
    halvo_channel *q = nullptr;

    void SetUp() override {
        ASSERT_EQ(initialise(segment), ESMS_OK);
        ASSERT_EQ(frx_openChannel(&writer, "the writer", 0, 'w', 1000), ESMS_OK);
        ASSERT_EQ(frx_openChannel(&reader, "the reader", 0, 'r', 1000), ESMS_OK);
        q = segment.channel("MT01");
    }
    void fill(int messages) {
        for (int i = 0; i < messages; ++i)
            ASSERT_EQ(frx_write(&writer, std::to_string(i), -1), ESMS_OK);
    }
    std::string read(int timeout = 5000) {
        Slot slot(q);
        const int result = frx_read(&reader, slot.data(), timeout);
        return result >= 0 ? slot.body() : "[" + std::to_string(result) + "]";
    }
};

} // namespace halvo::test
