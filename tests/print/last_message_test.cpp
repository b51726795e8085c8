#include <cstring>

#include "core/segment/ring.h"
#include "tests/print/scenario.h"

using namespace halvo::test;

namespace {

int next_random = 0;

class LastMessage : public Status {
protected:
    // Puts a text where the reader has been last.
    void consumed(const std::string &text) {
        auto *body = static_cast<char *>(halvo::body(qm_last_msg_of(mt)));
        std::memset(body + 306, 0, 124);
        std::memcpy(body + 306, text.data(), text.size());
    }
    static std::string copied() {
        char text[HALVO_LAST_MESSAGE_SIZE];
        std::memset(text, 'x', sizeof text);
        EXPECT_NE(qm_sprint_last_msg(text), nullptr);
        return text;
    }
    static void outbound(int index, const char *prefix) {
        std::strcpy(qm_out_prefixes[index], prefix);
    }
};

} // namespace

// The library's rand() too.
extern "C" __attribute__((visibility("default"))) int rand() noexcept { return next_random; }

TEST_F(LastMessage, lies_before_the_read_position) {
    mt->rpos += 2 * mt->qbsz;
    EXPECT_EQ(qm_last_msg_of(mt), halvo::slot_at(mt, mt->qstart + mt->qbsz));
    for (const uint32_t damaged : {mt->qstart + 4, mt->qend, 0u, 0xFFFFFFFFu}) {
        mt->rpos = damaged;
        EXPECT_EQ(qm_last_msg_of(mt), halvo::slot_at(mt, mt->qend - mt->qbsz)) << damaged;
    }
    EXPECT_EQ(qm_last_msg_of(nullptr), nullptr);
}

TEST_F(LastMessage, is_printed_with_its_channel_and_age) {
    consumed("안녕 ");
    halvo_print_option colours{HALVO_OPTION_SPECIAL, 0, 33, -1};
    qoptMsg = &colours;
    const std::string text = "최종발송            MT01 00:01:15 \x1b[33m안녕 ";
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(qm_print_last_msg(), 0); }),
              "\x1b[2K" + text + "\x1b[0m\n");
    EXPECT_EQ(captured_stdout([] { qm_print_last_msg2('w'); }), text + "\n");
    qoptMsg = nullptr;
}

TEST_F(LastMessage, is_cut_trimmed_and_without_line_breaks) {
    consumed("two\r\nlines" + std::string(114, ' '));
    EXPECT_EQ(copied(), "two  lines");
    consumed(std::string(124, 'm'));
    EXPECT_EQ(copied(), std::string(124, 'm'));
}

TEST_F(LastMessage, of_a_small_slot_is_what_the_slot_holds) {
    outbound(0, "XC");
    auto *slot = reinterpret_cast<char *>(qm_last_msg_of(xcn));
    std::memset(slot + 14, 'm', xcn->qbsz - 14);
    EXPECT_EQ(copied(), ""); // 242 bytes of body, the text would begin at 306
    EXPECT_EQ(q_last, xcn);
}

TEST_F(LastMessage, is_that_of_the_outbound_channel_that_was_read_last) {
    EXPECT_EQ(qm_last_out_q(q_0()), mt);
    xcn->lastout = kNow - 1;
    EXPECT_EQ(qm_last_out_q(q_0()), mt);
    outbound(5, "XC");
    // The walk starts at a random channel; of two equals it finds the first.
    const auto chosen_from = [](int start) {
        next_random = 4 * start; // three channels, a twelfth
        return qm_last_out_q(q_0());
    };
    for (const int start : {0, 1, 2}) EXPECT_EQ(chosen_from(start), xcn);
    xcn->lastout = mt->lastout;
    EXPECT_EQ(chosen_from(0), mt);
    EXPECT_EQ(chosen_from(1), xcn);
    EXPECT_EQ(chosen_from(2), mt);
    EXPECT_EQ(chosen_from(3), mt);         // past the end: from the first
    EXPECT_EQ(chosen_from(536870911), mt); // the product wraps
}

TEST_F(LastMessage, without_an_outbound_channel_there_is_none) {
    outbound(0, "");
    char text[HALVO_LAST_MESSAGE_SIZE] = "untouched";
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(qm_print_last_msg(), -1); }), "");
    EXPECT_EQ(qm_sprint_last_msg(text), nullptr);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(q_last, nullptr);
    EXPECT_EQ(qm_last_out_q(nullptr), nullptr);
}

TEST(LastMessageText, is_trimmed_from_the_right) {
    const struct {
        int (*trim)(char *, int);
        const char *text;
        int length, stops_at;
        const char *left;
    } cases[] = {
        {qm_rtrim2, "ab \t\n", 4, 1, "ab"},
        {qm_rtrim2, "   ", 2, 0, " "},       // index 0 is not examined
        {qm_rtrim2, "ab  ", 10, 10, "ab  "}, // a terminator is no white space
        {qm_rtrim, "pay 5$ \n", 7, 5, "pay 5"},
        {qm_rtrim, "$5$$ ", 4, 3, "$5$"},
        {qm_rtrim, "a\\nb\\n\\n ", 8, 7, "a\nb\n\n"},
    };
    for (const auto &[trim, text, length, stops_at, left] : cases) {
        char copy[64] = {};
        std::strcpy(copy, text);
        EXPECT_EQ(trim(copy, length), stops_at);
        EXPECT_STREQ(copy, left);
    }
    char text[] = "a\r\nb\nc";
    EXPECT_EQ(qm_span(text, 4), 0);
    EXPECT_STREQ(text, "a  b\nc");
}
