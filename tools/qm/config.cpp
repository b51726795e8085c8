#include "tools/qm/config.h"

#include <limits>
#include <map>

#include "tools/frame/charset.h"
#include "tools/frame/text.h"
#include "tools/frame/toml.h"

namespace halvo::qm {

using namespace tools;

namespace {

uint32_t line_of(const toml::source_region &source) { return source.begin.line; }

// Builds the plan and remembers the line of each item, for faults that show in the whole only.
class Loader {
public:
    explicit Loader(const std::string &path) : path_(path) {}

    SegmentPlan load() {
        const toml::table root = parsed();
        for (const auto &[key, node] : root) {
            if (key == "types")
                read_types(node);
            else if (key == "channel")
                read_channels(node);
            else
                unknown(key);
        }
        if (const Fault fault = first_fault(plan_); !fault.reason.empty()) fail(fault);
        return plan_;
    }

private:
    [[noreturn]] void fail(const TomlFault &fault) const {
        const std::string message = text_of(path_, fault);
        throw Error(printable(message.c_str(), message.size()));
    }
    [[noreturn]] void fail(uint32_t line, const std::string &reason) const {
        fail(TomlFault{line, reason});
    }

    [[noreturn]] void fail(const Fault &fault) const {
        const auto found = lines_.find(fault.item);
        fail(found == lines_.end() ? 1 : found->second, fault.reason);
    }

    [[noreturn]] void unknown(const toml::key &key) const {
        fail(line_of(key.source()), text("unknown key \"%s\"", key.str().data()));
    }

    toml::table parsed() const {
        try {
            return load_toml(path_);
        } catch (const TomlFault &fault) {
            fail(fault);
        }
    }

    std::string string(const toml::node &node, const char *what) const {
        if (!node.is_string()) fail(line_of(node.source()), text("%s must be a string", what));
        return node.as_string()->get();
    }

    // As the segment has it: the file is UTF-8, names in segments are EUC-KR.
    std::string name_of(const toml::node &node, const char *what) const {
        const std::string utf8 = string(node, what);
        if (auto name = to_euc_kr(utf8)) return *std::move(name);
        fail(line_of(node.source()),
             text("%s \"%s\" has a character that EUC-KR lacks", what, utf8.c_str()));
    }

    template <typename T>
    T integer(const toml::node &node, const char *what, int64_t least) const {
        if (!node.is_integer())
            fail(line_of(node.source()), text("%s must be a whole number", what));
        const int64_t value = node.as_integer()->get();
        constexpr int64_t most = std::numeric_limits<T>::max();
        if (value < least || value > most)
            fail(line_of(node.source()), text("%s is %jd; it must be from %jd to %jd", what,
                                              intmax_t{value}, intmax_t{least}, intmax_t{most}));
        return static_cast<T>(value);
    }

    void read_types(const toml::node &node) {
        if (!node.is_table()) fail(line_of(node.source()), "types must be a table: [types]");
        for (const auto &[key, name] : *node.as_table()) {
            const int type = type_of(key);
            lines_[item_of_type(type)] = line_of(key.source());
            plan_.type_names[type] = name_of(name, "the name of a type");
        }
    }

    // Plain decimal, so that no two keys mean the same type.
    int type_of(const toml::key &key) const {
        const std::string digits(key.str());
        const bool plain = !digits.empty() && digits.size() <= 9 &&
                           digits.find_first_not_of("0123456789") == std::string::npos &&
                           (digits.size() == 1 || digits[0] != '0');
        if (!plain)
            fail(line_of(key.source()), text("\"%s\" is not the number of a type", digits.c_str()));
        return std::stoi(digits);
    }

    void read_channels(const toml::node &node) {
        const toml::array *entries = node.as_array();
        if (!entries) fail(line_of(node.source()), "channel must be written [[channel]]");
        for (const toml::node &entry : *entries) {
            if (!entry.is_table())
                fail(line_of(entry.source()), "channel must be written [[channel]]");
            read_channel(*entry.as_table());
        }
    }

    void read_channel(const toml::table &table) {
        const size_t number = plan_.channels.size();
        lines_[item_of_channel(number)] = line_of(table.source());
        ChannelPlan &channel = plan_.channels.emplace_back();
        for (const auto &[key, node] : table) {
            lines_[item_of_channel(number, key.str().data())] = line_of(node.source());
            if (key == "name")
                channel.name = name_of(node, "name");
            else if (key == "type")
                channel.type = letter(node);
            else if (key == "slots")
                channel.slots = integer<uint32_t>(node, "slots", 1);
            else if (key == "slot_size")
                channel.slot_size = integer<uint32_t>(node, "slot_size", 0);
            else if (key == "rate_limit")
                channel.rate_limit = integer<int32_t>(node, "rate_limit", 0);
            else
                unknown(key);
        }
        for (const char *required : {"name", "slots", "slot_size"})
            if (!table.contains(required))
                fail(line_of(table.source()), text("the channel has no \"%s\"", required));
    }

    char letter(const toml::node &node) const {
        const std::string value = string(node, "type");
        if (value.size() != 1) fail(line_of(node.source()), "type must be one letter");
        return value[0];
    }

    const std::string &path_;
    SegmentPlan plan_;
    std::map<std::string, uint32_t> lines_;
};

} // namespace

SegmentPlan load_config(const std::string &path) { return Loader(path).load(); }

} // namespace halvo::qm
