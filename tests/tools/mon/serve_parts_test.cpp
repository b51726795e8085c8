// The served documents and the past that is kept for them, without a server.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/tools/mon/samples.h"
#include "tools/mon/serve/api.h"
#include "tools/mon/serve/history.h"

using namespace halvo::mon;
using nlohmann::json;

namespace {

// Two channels; the second one's depth is the number of the sample.
Sample sample_number(uint64_t number) {
    Sample sample = halvo::test::sample_of(1700000000 + static_cast<int64_t>(number),
                                           {{"MT\"01\\", 0}, {"B", number}});
    sample.channels[1].in_rate = 0.26;
    sample.channels[1].out_rate = 1000;
    return sample;
}

json members(const History &history, uint64_t since, int only = -1) {
    return json::parse("{" + history.json_members(since, sample_number(0), only) + "}");
}

} // namespace

TEST(ServedHistory, keeps_a_quarter_of_an_hour_and_gives_what_is_new) {
    History history;
    history.restart(2);
    for (uint64_t number = 1; number <= 1000; ++number) history.add(number, sample_number(number));

    const json all = members(history, 0);
    ASSERT_EQ(all["samples"].size(), History::kPoints);
    EXPECT_EQ(all["samples"].front(), 101);
    EXPECT_EQ(all["times"].back(), 1700001000000);
    EXPECT_EQ(all["channels"][0]["name"], "MT\"01\\");
    EXPECT_EQ(all["channels"][1]["in"].back(), 0.3);
    EXPECT_EQ(all["channels"][1]["out"].back(), 1000);

    const json late = members(history, 998, 1);
    EXPECT_EQ(late["samples"], json({999, 1000}));
    ASSERT_EQ(late["channels"].size(), 1u);
    EXPECT_EQ(late["channels"][0]["depth"], json({999, 1000}));

    history.restart(2); // another segment
    EXPECT_TRUE(members(history, 0)["samples"].empty());
}

TEST(ServedDocuments, are_json_whatever_names_hold_and_rank_what_is_wrong) {
    for (const auto &[trouble, state, level] :
         std::vector<std::tuple<Trouble, const char *, const char *>>{
             {Trouble::none, "waiting", "ok"},
             {Trouble::throttled, "throttled", "warn"},
             {Trouble::stalled, "stalled", "bad"},
             {Trouble::full, "full", "bad"}}) {
        Sample sample = sample_number(7);
        sample.channels[1].in_rate = sample.channels[1].out_rate = 0;
        sample.channels[1].trouble = trouble;
        sample.channels[0].name = "\xff<\n"; // no UTF-8 at all
        const json document = json::parse(channels_json({"key", 1, 2, 3}, sample));
        const json &channel = document["channels"][1];
        EXPECT_EQ(channel["state"], state);
        EXPECT_EQ(channel["level"], level);
        EXPECT_EQ(channel["trouble"].size(), trouble == Trouble::none ? 0u : 1u);
        EXPECT_EQ(document["totals"]["trouble"], trouble == Trouble::none ? 0 : 1);
        EXPECT_EQ(document["channels"][0]["name"], "\xEF\xBF\xBD<\n");
    }
}
