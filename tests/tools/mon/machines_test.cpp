// What halvo-mon tells programs: metrics and the answer to a check.
#include <cstring>

#include "tests/print/scenario.h"
#include "tools/mon/check.h"
#include "tools/mon/serve/prometheus.h"

using namespace halvo::mon;
using namespace halvo::test;

namespace {

class Machines : public Status {
protected:
    Answer answer(const CheckOptions &options) const {
        return check(Sampler(segment.key_file()).take(), options);
    }
    std::string metrics() const {
        Sampler sampler(segment.key_file());
        const Sample sample = sampler.take();
        return prometheus_text(sample, sampler.view());
    }
};

void expect_lines(const std::string &text, const std::vector<std::string> &wanted) {
    const std::vector<std::string> there = lines(text);
    for (const std::string &line : wanted)
        EXPECT_EQ(std::count(there.begin(), there.end(), line), 1) << line;
}

} // namespace

TEST_F(Machines, metrics_keep_to_the_format_whatever_a_channel_is_called) {
    std::memcpy(mt->qname, "a\"b\\c\nd", 8);
    std::memset(xcn->qname, 'x', sizeof xcn->qname);
    const std::string text = metrics();
    expect_lines(
        text, {"halvo_channel_ring_backlog{channel=\"a\\\"b\\\\c?d\",number=\"0\",type=\"M\"} 2"});
    EXPECT_NE(text.find("{channel=\"" + std::string(24, 'x') + "\","), std::string::npos);
}

TEST_F(Machines, metrics_hold_the_figures_of_the_tables) {
    const std::string file = "{channel=\"XCN1\",number=\"1\",type=\"F\"";
    expect_lines(metrics(), {"halvo_channels 3", "halvo_channel_done_total" + file + "} 7500",
                             "halvo_channel_backlog" + file + "} 500",
                             "halvo_channel_throttled" + file + "} 1",
                             "halvo_channel_active" + file + ",end=\"file-writer\"} 1",
                             "halvo_channel_active" + file + ",end=\"file-reader\"} 0",
                             "halvo_channel_process_id" + file + ",end=\"file-reader\"} 5102",
                             "halvo_channel_replies_total" + file + ",reply=\"ack\"} 40",
                             "halvo_channel_reply_errors_total" + file + ",reply=\"ack\"} 10",
                             utf8("halvo_channel_type_messages_total{channel=\"한국\","
                                  "number=\"2\",type=\"D\",message_type=\"5\","
                                  "type_name=\"submit\"} 40")});
    xcn->ackq = 3; // replies that point nowhere are left out
    EXPECT_EQ(metrics().find("reply="), std::string::npos);
    xcn->ackq = 2;
    xcn->acktype = -1;
    xcn->rslttype = 4096;
    EXPECT_EQ(metrics().find("reply="), std::string::npos);
}

TEST_F(Machines, a_check_judges_the_ends_that_the_channel_uses) {
    CheckOptions options;
    options.demands.age = {5, 10};
    options.channels = {"MT01"};
    EXPECT_EQ(answer(options).line,
              "HALVO OK - 1 channels, backlog 2 | 'MT01 backlog'=2;;;0 'MT01 writer'=2s;5;10;0 "
              "'MT01 reader'=3s;5;10;0");
    mt->rtime = kNow - 11;
    EXPECT_EQ(answer(options).health, Health::critical);
    options.readers = false;
    EXPECT_EQ(answer(options).health, Health::ok);
    // Of type F it is the file queue's: writer 10 seconds ago, its ring was never used.
    options.channels = {"XCN1"};
    EXPECT_EQ(answer(options).health, Health::warning);
    xcn->fwtime = 0;
    EXPECT_EQ(answer(options).line,
              "HALVO CRITICAL - XCN1 writer never seen | 'XCN1 backlog'=500;;;0 "
              "'XCN1 writer'=U;5;10;0");
}

TEST_F(Machines, a_check_answers_in_one_line_with_the_worst_first) {
    std::memcpy(korea->qname, "|'=\n", 5);
    xcn->fpcnt.count = 7501;
    CheckOptions options;
    options.demands.backlog = {0, 2};
    EXPECT_EQ(answer(options).line,
              "HALVO CRITICAL - ____ backlog 3; MT01 backlog 2; XCN1 backlog 1 | "
              "'MT01 backlog'=2;0;2;0 'XCN1 backlog'=1;0;2;0 '____ backlog'=3;0;2;0");
}

TEST_F(Machines, a_damaged_channel_is_critical_and_has_no_figures) {
    mt->qend = 0xFFFFFFF0u;
    const Answer found = answer({});
    EXPECT_EQ(found.health, Health::critical);
    EXPECT_EQ(found.line.find("HALVO CRITICAL - channel 0 is damaged |"), 0u);
    const std::string text = metrics(), mt01 = "{channel=\"MT01\",number=\"0\",type=\"M\"";
    expect_lines(text, {"halvo_channel_damaged" + mt01 + "} 1"});
    EXPECT_EQ(text.find("halvo_channel_backlog" + mt01), std::string::npos);
}
