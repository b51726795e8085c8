#include <algorithm>
#include <climits>
#include <cstring>

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

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

} // namespace

// The one channel of the example that the format was first described with.
class WorkedExample : public Status {
protected:
    WorkedExample() {
        q_0()->nchnnl = 1;
        q_0()->uptime = 1700000000;
        take_snapshot(kNow);
        image(0).gcnt.count = 900;
        image(0).gcnt.ecount = 1;
    }
};

TEST_F(WorkedExample, as_xml) {
    EXPECT_EQ(xml('a'),
              "<smsqm><q name=\"MT01\" id=\"0\" type=\"M\"><stat>WR__</stat><alloc> 4K*100</alloc>"
              "<master> 1</master><tpsmx>0</tpsmx><tot>2</tot><mem>2</mem><done>98</done>"
              "<edone>2</edone><ack>0</ack><eack>0</eack><rslt>0</rslt><erslt>0</erslt>"
              "<rwrw>_F __________</rwrw><last-in>00:01:15</last-in><last-out>00:00:02</last-out>"
              "<pidp>4101</pidp><pidpf>0</pidpf><pidg>4102</pidg><pidgf>0</pidgf></q>\n</smsqm>");
}

TEST_F(WorkedExample, as_json) {
    EXPECT_EQ(json(), "{\"smsqm\":[{ \"name\":\"MT01\",\"id\":0, \"type\":\"M\",\"stat\":\"WR__\","
                      "\"alloc\":\" 4K*100\",\"master\": 1,\"tpsmx\":0,\"tot\":2,\"mem\":2,"
                      "\"done\":998,\"edone\":3,\"ack\":0,\"eack\":0,\"rslt\":0,\"erslt\":0,"
                      "\"rwrw\":\"_F __________\",\"lastin\":\"00:01:15\","
                      "\"lastout\":\"00:00:02\",\"pidp\":4101,\"pidpf\":0,\"pidg\":4102,"
                      "\"pidgf\":0}\n],\n\"uptime\":1700000000}");
}

TEST_F(Documents, json_lists_every_channel_whatever_the_mode) {
    const std::string all = json('a');
    EXPECT_EQ(json('s'), all);
    EXPECT_EQ(json('x'), all);
    EXPECT_TRUE(contains(all, "\"name\":\"한국\",\"id\":2, \"type\":\"D\""));
    EXPECT_TRUE(contains(all, "\"pidgf\":5102},\n{ \"name\":\"한국\""));
}

TEST_F(Documents, xml_leaves_idle_channels_out_unless_asked) {
    EXPECT_TRUE(contains(xml('x'), "XCN1"));
    EXPECT_FALSE(contains(xml('x'), "한국"));
    EXPECT_TRUE(contains(xml('s'), "한국"));
    xcn->fwtime = kNow - 11;
    mt->wtime = kNow - 6;
    mt->rtime = kNow - 5;
    EXPECT_EQ(element(0, "stat", 'x'), "_R__");
    EXPECT_EQ(element(1, "stat", 'x'), "(not listed)");
}

TEST_F(Documents, xml_counts_from_the_snapshot_and_json_from_the_start) {
    take_snapshot(kNow);
    image(1).fgcnt.count = 7000;
    image(2).tcnt[5].count = image(2).tcnt[5].ecount = 10;
    image(2).tcnt[6].count = image(2).tcnt[6].ecount = 0;
    EXPECT_EQ(element(1, "done"), "500");
    EXPECT_EQ(element(1, "ack"), "30");
    EXPECT_EQ(element(1, "eack"), "10"); // those without the flag: 40 - 30, and none before
    EXPECT_EQ(element(1, "rslt"), "20");
    EXPECT_EQ(element(1, "erslt"), "0");
    EXPECT_TRUE(contains(json(), "\"done\":7500,\"edone\":0,\"ack\":40,\"eack\":10,\"rslt\":20,"
                                 "\"erslt\":0"));
    EXPECT_EQ(element(1, "tot"), "500");
    EXPECT_EQ(element(1, "mem"), "0");
}

TEST_F(Documents, a_third_type_reports_the_file_queue_but_is_measured_on_the_ring) {
    provide_baseline();
    EXPECT_EQ(element(2, "done"), "2");
    EXPECT_EQ(+lastcheck[2].count, 60u);
    EXPECT_EQ(+lastcheck[1].count, 7500u);
}

TEST_F(Documents, both_move_the_baseline_even_of_channels_that_they_skip) {
    provide_baseline();
    xml('x');
    EXPECT_EQ(+lastcheck[2].count, 60u);
    EXPECT_EQ(lastcheck[2].tstart, q_day_millis());
    lastcheck[2].count = 0;
    json();
    EXPECT_EQ(+lastcheck[2].count, 60u);
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

TEST_F(Documents, show_size_slots_and_times) {
    EXPECT_EQ(element(2, "alloc"), " 0K*  8"); // 1000 bytes
    EXPECT_EQ(element(1, "last-in"), "01-01:00");
    EXPECT_EQ(element(1, "last-out"), "");
    halvo::slot_at(mt, mt->wpos)->state = HALVO_SLOT_PENDING;
    mt->rpos += 4096;
    halvo::slot_at(mt, mt->rpos)->state = HALVO_SLOT_MARKED;
    halvo::test::buffer_slot(mt, mt->wbufs, 1)->state = HALVO_SLOT_READABLE;
    halvo::test::buffer_slot(mt, mt->rbufs, 4)->state = 7;
    EXPECT_EQ(element(0, "rwrw"), "WR _F_______X");
}

TEST_F(Documents, can_be_read_by_other_programs) {
    const std::string xml_file = write_file("status.xml", utf8(xml('a')));
    const std::string json_file = write_file("status.json", utf8(json()));
    EXPECT_EQ(output_of("xmllint --xpath 'string(//q[pidp=6101]/@name)' " + xml_file),
              utf8("한국\n"));
    EXPECT_EQ(output_of("jq -c '[.uptime, (.smsqm | length), .smsqm[1].ack, .smsqm[2].name]' " +
                        json_file),
              utf8("[1699840795,3,40,\"한국\"]\n"));
}

TEST_F(Documents, follow_the_options_list) {
    std::vector<halvo_print_option> options(HALVO_PRINT_OPTIONS, {HALVO_OPTION_UNUSED, 0, -1, -1});
    options[0].channel = 2;
    options[1].channel = 0;
    qprtopts = options.data();
    const std::string chosen = xml('s');
    EXPECT_LT(chosen.find("한국"), chosen.find("MT01"));
    EXPECT_FALSE(contains(chosen, "XCN1"));
    EXPECT_TRUE(contains(xml('a'), "XCN1"));
    options[1].channel = 300;
    std::string damaged;
    EXPECT_EQ(captured_stdout([&] { damaged = xml('s'); }), "WARNNING! 300th q is null\n");
    EXPECT_TRUE(contains(damaged, "한국"));
    EXPECT_EQ(damaged.substr(damaged.size() - 13), "</q>\n</smsqm>");
    qprtopts = nullptr;
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
    EXPECT_TRUE(contains(xml('a'), "\"" + std::string(24, 'x') + "\""));
}
