#include "tools/qm/config.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"

namespace halvo::qm {
namespace {

class ConfigTest : public testing::Test {
protected:
    static std::string complaint_about(const std::string &path) {
        try {
            load_config(path);
        } catch (const Error &error) {
            return error.what();
        }
        return "no complaint";
    }

    const test::TestDirectory directory_;
    const std::string path_ = directory_.path("config.toml");
};

TEST_F(ConfigTest, takes_every_field_and_fills_in_what_is_left_out) {
    test::write_file(path_, "[types]\n4095 = 'last'\n1 = 'first'\n"
                            "[[channel]]\nname = 'MT01'\nslots = 4\nslot_size = 20\n"
                            "[[channel]]\nname = '12345678901234567890123'\ntype = 'F'\n"
                            "slots = 1\nslot_size = 2_048\nrate_limit = 10\n");
    const SegmentPlan plan = load_config(path_);
    EXPECT_EQ(plan.type_names, (std::map<int, std::string>{{1, "first"}, {4095, "last"}}));
    std::string channels;
    for (const ChannelPlan &c : plan.channels)
        channels += c.name + ' ' + c.type + ' ' + std::to_string(c.slots) + ' ' +
                    std::to_string(c.slot_size) + ' ' + std::to_string(c.rate_limit) + '\n';
    EXPECT_EQ(channels, "MT01 M 4 20 0\n12345678901234567890123 F 1 2048 10\n");
}

TEST_F(ConfigTest, every_fault_is_told_with_its_line_and_reason) {
    // Line 1 to 4 of a channel that is sound until something is added or replaced.
    const std::string channel = "[[channel]]\nname = 'MT01'\nslots = 4\nslot_size = 256\n";
    const auto with = [&](const std::string &from, const std::string &to) {
        std::string changed = channel;
        return changed.replace(changed.find(from), from.size(), to);
    };
    EXPECT_EQ(complaint_about(path_), path_ + ": No such file or directory");
    EXPECT_NE(complaint_about(directory_.path()), "no complaint");
    const struct {
        std::string content;
        int line;
        std::string reason;
    } cases[] = {
        {"", 1, "there is no channel"},
        {"[[channel]\n", 1, "Error while parsing"},
        {channel + "slots = 5\n", 5, "slots"},
        {channel + "size = 5\n", 5, "unknown key \"size\""},
        {with("slots =", "slot ="), 3, "unknown key \"slot\""},
        {"chanel = 1\n" + channel, 1, "unknown key \"chanel\""},
        {channel + "\"two\\nlines\" = 1\n", 5, "unknown key \"two?lines\""},
        {"[channel]\nname = 'MT01'\n", 1, "[[channel]]"},
        {"channel = [1]\n", 1, "[[channel]]"},
        {with("name = 'MT01'\n", ""), 1, "the channel has no \"name\""},
        {with("slots = 4\n", ""), 1, "the channel has no \"slots\""},
        {with("'MT01'", "7"), 2, "name must be a string"},
        {with("MT01", ""), 2, "the name is empty"},
        {with("MT01", "123456789012345678901234"), 2, "24 bytes; at most 23"},
        {with("'MT01'", "\"a\\u0000b\""), 2, "control character"},
        {with("= 4", "= 4.0"), 3, "slots must be a whole number"},
        {with("= 4", "= 0"), 3, "slots is 0; it must be from 1 to 4294967295"},
        {with("= 4", "= 4294967296"), 3, "slots is 4294967296"},
        {with("256", "16"), 4, "a slot of 16 bytes holds no message"},
        {channel + "type = 'MM'\n", 5, "type must be one letter"},
        {channel + "type = '1'\n", 5, "the type must be one letter"},
        {channel + "rate_limit = 2147483648\n", 5, "rate_limit is 2147483648"},
        {channel + channel, 6, "another channel has the name MT01"},
        {with("= 4", "= 4294967295"), 1, "larger than 4 GiB"},
        {with("256", "4294967292"), 1, "larger than 4 GiB"},
        {with("= 4", "= 9000000") + "[[channel]]\nname = 'B'\nslots = 9000000\nslot_size = 256\n",
         5, "larger than 4 GiB"},
        {channel + "[types]\n0 = 'none'\n", 6, "from 1 to 4095"},
        {channel + "[types]\n4096 = 'none'\n", 6, "from 1 to 4095"},
        {channel + "[types]\n01 = 'one'\n", 6, "\"01\" is not the number of a type"},
        {channel + "[types]\n1 = 1\n", 6, "the name of a type must be a string"},
        {channel + "[types]\n1 = '123456789012345678901234'\n", 6, "at most 23"},
        {"types = 1\n" + channel, 1, "[types]"},
    };
    for (const auto &[content, line, reason] : cases) {
        test::write_file(path_, content);
        const std::string complaint = complaint_about(path_);
        const std::string place = path_ + ":" + std::to_string(line) + ": ";
        EXPECT_EQ(complaint.substr(0, place.size()), place) << complaint << "\n" << content;
        EXPECT_NE(complaint.find(reason), std::string::npos) << complaint << "\n" << content;
        EXPECT_EQ(complaint.find('\n'), std::string::npos) << complaint;
    }
    std::string content; // one channel more than there can be
    for (int i = 0; i < 270; ++i)
        content += "[[channel]]\nname = 'C" + std::to_string(i) + "'\nslots = 1\nslot_size = 20\n";
    test::write_file(path_, content);
    EXPECT_EQ(complaint_about(path_),
              path_ + ":" + std::to_string(269 * 4 + 1) + ": there are more than 269 channels");
}

} // namespace
} // namespace halvo::qm
