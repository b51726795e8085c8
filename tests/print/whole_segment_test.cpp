// Every printer on a full segment, an empty one and none.
#include "core/attach.h"
#include "tests/print/scenario.h"

using namespace halvo::test;

namespace {

struct Output {
    std::string xml, json, printed;
};

// Everything there is to print, in every mode.
Output print_all() {
    std::vector<char> document(128 + 1024 * HALVO_CHANNELS_MAX);
    Output output;
    output.printed = captured_stdout([&] {
        for (const char mode : {'a', 's', 'w', 'f'}) {
            q_printlogo2(mode);
            q_statprint_classic(mode);
            q_statprint(mode);
            q_statprint2(mode);
            q_statlog(mode);
            q_statprint_xml(mode, document.data());
            if (mode == 'a') output.xml = document.data();
            q_statprint_json(mode, document.data());
        }
        q_tstatprint("");
        q_clientsprint();
        qm_print_last_msg();
    });
    output.json = document.data();
    return output;
}

size_t count_of(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
    return count;
}

// The globals of a monitoring program for the attached segment.
class Monitor {
public:
    Monitor()
        : baseline_(q_0()->nchnnl + 1),
          image_(sizeof(halvo_segment) + q_0()->nchnnl * sizeof(halvo_channel)) {
        lastcheck = baseline_.data();
        snapshot = image_.data();
        EXPECT_EQ(q_snapshot(snapshot, static_cast<int>(image_.size())), 0);
    }
    ~Monitor() {
        lastcheck = nullptr;
        snapshot = nullptr;
    }

private:
    std::vector<halvo_counter> baseline_;
    std::vector<char> image_;
};

} // namespace

TEST(WholeSegment, of_as_many_channels_as_there_can_be) {
    SegmentBuilder builder;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        builder.channel("MT" + std::to_string(10000 + i), i % 2 ? 'F' : 'D', 2, 512);
    const Segment segment = builder.build();
    segment.attach();
    const auto check = [](const Output &output) {
        EXPECT_EQ(count_of(output.xml, "</q>\n"), 269u);
        EXPECT_EQ(count_of(output.json, "\"pidgf\""), 269u);
        // It is idle: tables show it in two modes, that of cells in a third, the log in all four.
        EXPECT_EQ(count_of(output.printed, "MT10268"), 2u + 2u + 3u + 4u + 2u);
    };
    print_all(); // without any of the globals
    const Monitor monitor;
    check(print_all());
}

TEST(WholeSegment, without_channels) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 2, 512).build();
    segment.attach();
    q_0()->nchnnl = 0;
    q_0()->uptime = 1700000000;
    const Monitor monitor;
    const Output output = print_all();
    EXPECT_EQ(output.xml, "<smsqm></smsqm>");
    EXPECT_EQ(output.json, "{\"smsqm\":[],\n\"uptime\":1700000000}");
    EXPECT_EQ(output.printed.find("MT01"), std::string::npos);
}

TEST(WholeSegment, that_is_not_attached) {
    const Output output = print_all();
    EXPECT_EQ(output.xml, "<smsqm></smsqm>");
    EXPECT_EQ(output.json, "{\"smsqm\":[ qm0 is null");
    EXPECT_EQ(count_of(output.printed, "qm is null .\n"), 4u);
    EXPECT_EQ(count_of(output.printed, "Uptime: 0days"), 14u);
}

TEST(WholeSegment, that_was_detached_again) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 2, 512).build();
    segment.attach();
    EXPECT_EQ(close_shm(), ESMS_OK);
    EXPECT_EQ(print_all().json, "{\"smsqm\":[ qm0 is null");
}
