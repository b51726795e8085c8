// The documents, and every printer on an empty segment and on none.
#include <climits>

#include "tests/print/scenario.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

class Documents : public Status {
protected:
    // The text of an element of one channel.
    std::string element(int channel, const std::string &tag, char mode = 'a') const {
        const std::string document = xml(mode);
        const size_t at = document.find(" id=\"" + std::to_string(channel) + "\"");
        if (at == std::string::npos) return "(not listed)";
        const size_t begin = document.find("<" + tag + ">", at) + tag.size() + 2;
        return document.substr(begin, document.find("</" + tag, begin) - begin);
    }
};

// Everything there is to print, in every mode; the last documents.
struct Output {
    std::vector<char> xml = std::vector<char>(128 + 1024 * HALVO_CHANNELS_MAX), json = xml;
    std::string printed = captured_stdout([this] {
        for (const char mode : {'s', 'w', 'f', 'a'}) {
            q_printlogo2(mode);
            for (auto *print : {q_statprint_classic, q_statprint, q_statprint2, q_statlog})
                print(mode);
            q_statprint_xml(mode, xml.data());
            q_statprint_json(mode, json.data());
        }
        q_tstatprint(nullptr);
        q_clientsprint();
        qm_print_last_msg();
    });
    bool has(const std::string &part) const { return printed.find(part) != std::string::npos; }
};

} // namespace

TEST_F(Documents, xml_counts_from_the_snapshot_and_json_from_the_start) {
    take_snapshot_of_before();
    EXPECT_EQ(xml('a'), expected("status.xml"));
    EXPECT_EQ(json(), expected("status.json"));
}

TEST_F(Documents, of_xml_leave_idle_channels_out_unless_asked) {
    const std::string all = json('a');
    EXPECT_NE(all.find("\"name\":\"한국\",\"id\":2, \"type\":\"D\""), std::string::npos);
    EXPECT_EQ(json('x'), all) << "JSON lists every channel whatever the mode";
    EXPECT_EQ(element(2, "stat", 'x'), "(not listed)");
    EXPECT_NE(element(2, "stat", 's'), "(not listed)");
    xcn->fwtime = kNow - 11;
    mt->wtime = kNow - 6;
    mt->rtime = kNow - 5;
    EXPECT_EQ(element(0, "stat", 'x'), "_R__");
    EXPECT_EQ(element(1, "stat", 'x'), "(not listed)");
}

TEST_F(Documents, move_the_baseline_even_of_channels_that_they_skip) {
    provide_baseline();
    EXPECT_EQ(element(2, "done"), "2") << "a third type reports the file queue";
    EXPECT_EQ(+lastcheck[2].count, 60u) << "and is measured on the ring";
    EXPECT_EQ(+lastcheck[1].count, 7500u);
    for (const auto &print : {+[] { xml('x'); }, +[] { json(); }}) {
        lastcheck[2].count = 0;
        lastcheck[2].tstart = 7;
        print();
        EXPECT_EQ(+lastcheck[2].count, 60u);
        EXPECT_EQ(lastcheck[2].tstart, q_day_millis());
    }
    EXPECT_EQ(prt_itvl, q_day_millis());
}

TEST_F(Documents, replies_that_point_nowhere_count_nothing) {
    const auto acks = [&](int channel, int type) {
        xcn->ackq = channel;
        xcn->acktype = type;
        return element(1, "ack");
    };
    EXPECT_EQ(acks(2, 5), "40");
    for (const int channel : {0, -1, 3, INT_MAX}) EXPECT_EQ(acks(channel, 5), "0") << channel;
    for (const int type : {-1, 4096, INT_MAX}) EXPECT_EQ(acks(2, type), "0") << type;
}

TEST_F(Documents, show_the_states_of_slots_and_buffers) {
    halvo::slot_at(mt, mt->wpos)->state = HALVO_SLOT_PENDING;
    mt->rpos += 4096;
    halvo::slot_at(mt, mt->rpos)->state = HALVO_SLOT_MARKED;
    halvo::test::buffer_slot(mt, mt->wbufs, 1)->state = HALVO_SLOT_READABLE;
    halvo::test::buffer_slot(mt, mt->rbufs, 4)->state = 7;
    EXPECT_EQ(element(0, "rwrw"), "WR _F_______X");
}

TEST_F(Documents, fit_the_room_that_the_header_asks_for) {
    for (int i = 0; i < 3; ++i) {
        halvo_channel *q = q_chnnl2q(i);
        std::memset(q->qname, 'x', sizeof q->qname); // no terminator
        const uint64_t most = uint64_t{1} << 63;     // -9223372036854775808, 20 characters
        for (halvo_counter *counter : {&q->pcnt, &q->gcnt, &q->fpcnt, &q->fgcnt, &q->tcnt[5]})
            counter->count = counter->ecount = most;
        q->pcnt.count = 0;
        q->fpcnt.count = 1;
        q->tcnt[5].ecount = 0;
        q->tcnt[0].ratio = q->tpsmx = q->pidp = q->pidg = q->pidpf = q->pidgf = INT_MIN;
        q->lastin = q->lastout = INT_MIN;
        q->ackq = 1;
        q->acktype = q->rslttype = 5;
    }
    EXPECT_LT(xml('a').size(), 3u * 1024);
    EXPECT_LT(json().size(), 3u * 1024);
    EXPECT_NE(xml('a').find("\"" + std::string(24, 'x') + "\""), std::string::npos);
}

TEST(WholeSegment, that_is_empty_or_not_there) {
    const Output nothing;
    EXPECT_STREQ(nothing.xml.data(), "<smsqm></smsqm>");
    EXPECT_STREQ(nothing.json.data(), "{\"smsqm\":[ qm0 is null");
    EXPECT_TRUE(nothing.has("qm is null .\n"));
    EXPECT_TRUE(nothing.has("Uptime: 0days"));
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 2, 512).build();
    segment.attach();
    q_0()->nchnnl = 0;
    q_0()->uptime = 1700000000;
    const Output output;
    EXPECT_STREQ(output.xml.data(), "<smsqm></smsqm>");
    EXPECT_STREQ(output.json.data(), "{\"smsqm\":[],\n\"uptime\":1700000000}");
    EXPECT_FALSE(output.has("MT01"));
    EXPECT_EQ(close_shm(), ESMS_OK);
    EXPECT_STREQ(Output().json.data(), "{\"smsqm\":[ qm0 is null");
}
