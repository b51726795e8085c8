// Every printer on a full segment, an empty one and none.
#include "tests/print/scenario.h"

using namespace halvo::test;

namespace {

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
        q_tstatprint("");
        q_tstatprint(nullptr);
        q_clientsprint();
        qm_print_last_msg();
    });
    size_t count(const std::string &part) const {
        size_t found = 0;
        for (size_t at = 0; (at = printed.find(part, at)) != std::string::npos; ++at) ++found;
        return found;
    }
};

} // namespace

TEST(WholeSegment, of_as_many_channels_as_there_can_be) {
    SegmentBuilder builder;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        builder.channel("MT" + std::to_string(10000 + i), i % 2 ? 'F' : 'D', 2, 512);
    const Segment segment = builder.build();
    segment.attach();
    Output(); // without any of a monitor's globals
    std::vector<halvo_counter> baseline(HALVO_CHANNELS_MAX);
    std::vector<char> image(sizeof(halvo_segment) + HALVO_CHANNELS_MAX * sizeof(halvo_channel));
    lastcheck = baseline.data();
    snapshot = image.data();
    EXPECT_EQ(q_snapshot(snapshot, static_cast<int>(image.size())), 0);
    const Output output;
    EXPECT_NE(std::strstr(output.xml.data(), "<q name=\"MT10268\" id=\"268\""), nullptr);
    EXPECT_NE(std::strstr(output.json.data(), "\"name\":\"MT10268\",\"id\":268"), nullptr);
    // It is idle: tables show it in two modes, that of cells in a third, the log in all four.
    EXPECT_EQ(output.count("MT10268"), 2u + 2u + 3u + 4u + 3u);
    lastcheck = nullptr;
    snapshot = nullptr;
}

TEST(WholeSegment, that_is_empty_or_not_there) {
    const Output nothing;
    EXPECT_STREQ(nothing.xml.data(), "<smsqm></smsqm>");
    EXPECT_STREQ(nothing.json.data(), "{\"smsqm\":[ qm0 is null");
    EXPECT_EQ(nothing.count("qm is null .\n"), 4u);
    EXPECT_EQ(nothing.count("Uptime: 0days"), 15u);
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 2, 512).build();
    segment.attach();
    q_0()->nchnnl = 0;
    q_0()->uptime = 1700000000;
    const Output output;
    EXPECT_STREQ(output.xml.data(), "<smsqm></smsqm>");
    EXPECT_STREQ(output.json.data(), "{\"smsqm\":[],\n\"uptime\":1700000000}");
    EXPECT_EQ(output.count("MT01"), 0u);
    EXPECT_EQ(close_shm(), ESMS_OK);
    EXPECT_STREQ(Output().json.data(), "{\"smsqm\":[ qm0 is null");
}
