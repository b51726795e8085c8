// halvo-mon: the file of check's limits.
#include "tools/frame/output.h"
#include "tools/frame/toml.h"
#include "tools/mon/check.h"

namespace halvo::mon {

using tools::kUsage;
using tools::ToolError;

namespace {

class Loader {
public:
    explicit Loader(const std::string &path) : path_(path) {}

    void load(CheckOptions &options) const {
        const toml::table root = parsed();
        if (const toml::node *node = root.get("default"))
            options.demands = demands_of(*node, options.demands);
        for (const auto &[key, node] : root) {
            if (key == "default") continue;
            if (key != "channel" || !node.is_table())
                fail(key.source(), "there are [default] and [channel.NAME]");
            for (const auto &[name, table] : *node.as_table())
                options.own[std::string(name.str())] = demands_of(table, options.demands);
        }
    }

private:
    [[noreturn]] void fail(const toml::source_region &at, const std::string &reason) const {
        throw ToolError(kUsage, tools::text_of(path_, {at.begin.line, reason}));
    }

    toml::table parsed() const {
        try {
            return tools::load_toml(path_);
        } catch (const tools::TomlFault &fault) {
            throw ToolError(kUsage, text_of(path_, fault));
        }
    }

    Demands demands_of(const toml::node &node, Demands demands) const {
        if (!node.is_table()) fail(node.source(), "limits must be a table");
        const std::pair<std::string_view, int64_t *> numbers[] = {
            {"warning", &demands.backlog.warning},
            {"critical", &demands.backlog.critical},
            {"warning_age", &demands.age.warning},
            {"critical_age", &demands.age.critical}};
        for (const auto &[key, value] : *node.as_table()) {
            bool known = false;
            for (const auto &[name, number] : numbers) {
                if (key != name) continue;
                known = true;
                if (!value.is_integer() || value.as_integer()->get() < 0)
                    fail(value.source(), std::string(name) + " must be a whole number from 0 on");
                *number = value.as_integer()->get();
            }
            if (known) continue;
            if (key == "held" && value.is_string() && set_held(value.as_string()->get(), demands))
                continue;
            if (key == "held")
                fail(value.source(), "held must be \"reader\", \"writer\", \"both\" or \"none\"");
            if (key != "ignore" || !value.is_boolean())
                fail(key.source(), "unknown key \"" + std::string(key.str()) + "\"");
            demands.ignored = value.as_boolean()->get();
        }
        return demands;
    }

    const std::string &path_;
};

} // namespace

bool set_held(const std::string &word, Demands &demands) {
    if (word != "reader" && word != "writer" && word != "both" && word != "none") return false;
    demands.reader_held = word == "reader" || word == "both";
    demands.writer_held = word == "writer" || word == "both";
    return true;
}

void load_limits(const std::string &path, CheckOptions &options) { Loader(path).load(options); }

} // namespace halvo::mon
