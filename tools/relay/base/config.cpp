#include "tools/relay/base/config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <set>

#include "tools/frame/toml.h"
#include "tools/relay/base/state.h"

namespace halvo::relay {

namespace {

// Reads the tables of a file; every fault names its line.
class Loader {
public:
    explicit Loader(const std::string &path) : path_(path) {}

    Config load() {
        const toml::table root = parsed();
        each(root, {{"relay", [&](const toml::node &n) { read_relay(table(n, "[relay]")); }},
                    {"broker", [&](const toml::node &n) { read_broker(table(n, "[broker]")); }},
                    {"route", [&](const toml::node &n) { read_routes(n); }}});
        if (config_.broker.addresses.empty()) fail(1, "[broker] has no url");
        if (config_.routes.empty()) fail(1, "there is no [[route]]");
        if (config_.state_directory.empty()) fail(1, "[relay] has no state directory");
        for (const RouteConfig &route : config_.routes)
            if (route.local().kind == Endpoint::channel && config_.key_file.empty())
                fail(1, "[relay] has no key, which the channel of route " + route.name + " needs");
        return config_;
    }

private:
    using Readers = std::map<std::string, std::function<void(const toml::node &)>>;

    [[noreturn]] void fail(uint32_t line, const std::string &reason) const {
        throw ConfigError(tools::text_of(path_, {line, reason}));
    }
    [[noreturn]] void fail(const toml::node &node, const std::string &reason) const {
        fail(node.source().begin.line, reason);
    }

    toml::table parsed() const {
        try {
            return tools::load_toml(path_);
        } catch (const tools::TomlFault &fault) {
            throw ConfigError(text_of(path_, fault));
        }
    }

    void each(const toml::table &table, const Readers &readers) const {
        for (const auto &[key, node] : table) {
            const auto reader = readers.find(std::string(key.str()));
            if (reader == readers.end())
                fail(key.source().begin.line, "unknown key \"" + std::string(key.str()) + "\"");
            reader->second(node);
        }
    }

    const toml::table &table(const toml::node &node, const char *what) const {
        if (!node.is_table()) fail(node, std::string("it must be written ") + what);
        return *node.as_table();
    }
    std::string string(const toml::node &node) const {
        if (!node.is_string() || node.as_string()->get().empty()) fail(node, "not a text");
        return node.as_string()->get();
    }
    template <class Number>
    std::function<void(const toml::node &)> number(Number &into, int64_t least, int64_t most) {
        return [this, &into, least, most](const toml::node &node) {
            const int64_t value = node.is_integer() ? node.as_integer()->get() : least - 1;
            if (value < least || value > most)
                fail(node, "it must be a whole number from " + std::to_string(least) + " to " +
                               std::to_string(most));
            into = static_cast<Number>(value);
        };
    }
    std::function<void(const toml::node &)> text(std::string &into) {
        return [this, &into](const toml::node &node) { into = string(node); };
    }
    // One of two words: true for the first.
    std::function<void(const toml::node &)> choice(bool &into, const char *yes, const char *no) {
        return [this, &into, yes, no](const toml::node &node) {
            const std::string word = string(node);
            if (word != yes && word != no)
                fail(node, std::string("it must be \"") + yes + "\" or \"" + no + "\"");
            into = word == yes;
        };
    }
    std::function<void(const toml::node &)> flag(bool &into) {
        return [this, &into](const toml::node &node) {
            if (!node.is_boolean()) fail(node, "it must be true or false");
            into = node.as_boolean()->get();
        };
    }

    void read_relay(const toml::table &table) {
        each(table, {{"key", text(config_.key_file)},
                     {"state", text(config_.state_directory)},
                     {"log", choice(config_.json_log, "json", "text")},
                     {"metrics", text(config_.metrics)}});
    }

    void read_broker(const toml::table &table) {
        BrokerConfig &b = config_.broker;
        each(table, {{"url", [&](const toml::node &node) { read_urls(node); }},
                     {"credentials", text(b.credentials)},
                     {"ca", text(b.ca)},
                     {"certificate", text(b.certificate)},
                     {"key", text(b.key)},
                     {"heartbeat", number(b.heartbeat, 1, 3600)},
                     {"confirm_timeout", number(b.confirm_timeout, 1, 3600)},
                     {"pause_first", number(b.pause_first, 10, 60000)},
                     {"pause_most", number(b.pause_most, 10, 3600000)}});
        if (b.certificate.empty() != b.key.empty())
            fail(table, "certificate and key belong together");
        if (!b.tls && !(b.ca + b.certificate).empty())
            fail(table, "ca and certificate are for an amqps:// url");
    }

    void read_urls(const toml::node &node) {
        if (!node.is_array()) return read_url(node);
        for (const toml::node &url : *node.as_array()) read_url(url);
    }

    // amqp[s]://host[:port][/virtual host]
    void read_url(const toml::node &node) {
        BrokerConfig &broker = config_.broker;
        std::string url = string(node);
        const bool tls = url.rfind("amqps://", 0) == 0;
        if (!tls && url.rfind("amqp://", 0) != 0)
            fail(node, "a url begins with amqp:// or amqps://");
        url.erase(0, tls ? 8 : 7);
        const size_t slash = url.find('/');
        const std::string virtual_host =
            slash == std::string::npos || slash + 1 == url.size() ? "/" : url.substr(slash + 1);
        url.erase(std::min(slash, url.size()));
        if (url.find('@') != std::string::npos)
            fail(node, "credentials do not stand in a url; give a file or the environment");
        if (!broker.addresses.empty() && (tls != broker.tls || virtual_host != broker.virtual_host))
            fail(node, "all urls must be of one kind and one virtual host");
        broker.tls = tls;
        broker.virtual_host = virtual_host;
        Address address{url, tls ? 5671 : 5672};
        const size_t colon = url.rfind(':');
        if (colon != std::string::npos && url.back() != ']') {
            char *end = nullptr;
            const long port = std::strtol(url.c_str() + colon + 1, &end, 10);
            if (*end || port < 1 || port > 65535)
                fail(node, "not a port: " + url.substr(colon + 1));
            address = {url.substr(0, colon), static_cast<int>(port)};
        }
        if (address.host.size() > 2 && address.host.front() == '[')
            address.host = address.host.substr(1, address.host.size() - 2);
        if (address.host.empty()) fail(node, "the url has no host");
        broker.addresses.push_back(address);
    }

    void read_routes(const toml::node &node) {
        if (!node.is_array()) fail(node, "it must be written [[route]]");
        for (const toml::node &entry : *node.as_array())
            read_route(entry, table(entry, "[[route]]"));
    }

    Endpoint endpoint(const toml::node &node) const {
        const std::string word = string(node);
        static const std::pair<const char *, Endpoint::Kind> kinds[] = {
            {"channel:", Endpoint::channel},
            {"fq:", Endpoint::file_queue},
            {"amqp:", Endpoint::queue}};
        for (const auto &[prefix, kind] : kinds)
            if (word.rfind(prefix, 0) == 0 && word.size() > std::strlen(prefix))
                return {kind, word.substr(std::strlen(prefix))};
        fail(node, "it must be \"channel:NAME\", \"fq:PATH\" or \"amqp:QUEUE\"");
    }

    // "type", or "body:OFFSET:LENGTH".
    void read_key(const toml::node &node, RouteConfig &route) const {
        const std::string word = string(node);
        unsigned offset = 0, length = 0;
        int used = 0;
        if (word == "type") return;
        if (std::sscanf(word.c_str(), "body:%u:%u%n", &offset, &length, &used) != 2 ||
            length == 0 || static_cast<size_t>(used) != word.size())
            fail(node, "it must be \"type\" or \"body:OFFSET:LENGTH\"");
        route.key_offset = offset;
        route.key_length = length;
    }

    void read_route(const toml::node &node, const toml::table &table) {
        RouteConfig route;
        bool has_from = false, has_to = false;
        each(table,
             {{"name", text(route.name)},
              {"from", [&](const toml::node &n) { route.from = endpoint(n), has_from = true; }},
              {"to", [&](const toml::node &n) { route.to = endpoint(n), has_to = true; }},
              {"batch", number(route.batch, 1, kMostBatch)},
              {"prefetch", number(route.prefetch, 1, kMostBatch)},
              {"rate_limit", number(route.rate_limit, 1, 10000000)},
              {"max_bytes", number(route.most_bytes, 1, 1 << 30)},
              {"type", number(route.type, 0, 65535)},
              {"shards", number(route.shards, 1, kMostShards)},
              {"shard_by", [&](const toml::node &n) { read_key(n, route); }},
              {"on_unroutable", choice(route.wait_for_route, "wait", "dead-letter")},
              {"on_poison", choice(route.reject_poison, "reject", "stop")},
              {"dead_letters", text(route.dead_letters)},
              {"dead_letter_queue", text(route.dead_letter_queue)},
              {"queue_type", choice(route.classic, "classic", "quorum")},
              {"single_active", flag(route.single_active)}});
        if (!has_from || !has_to) fail(node, "the route has no \"from\" or no \"to\"");
        if ((route.from.kind == Endpoint::queue) == (route.to.kind == Endpoint::queue))
            fail(node, "of \"from\" and \"to\" one must be a queue of the broker, \"amqp:QUEUE\"");
        check_name(node, route.name);
        if (route.prefetch == 0) route.prefetch = std::min<int>(2 * route.batch, kMostBatch);
        if (route.dead_letters.empty())
            route.dead_letters = config_.state_directory + "/" + route.name + ".dead";
        if (route.local() == Endpoint{Endpoint::file_queue, route.dead_letters})
            fail(node, "the dead letters need another file queue than the route's own");
        config_.routes.push_back(route);
    }

    // It names files.
    void check_name(const toml::node &node, const std::string &name) {
        const bool plain = name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTU"
                                                  "VWXYZ0123456789_-") == std::string::npos;
        if (name.empty() || name.size() > 40 || !plain)
            fail(node, "a route's name has 1 to 40 letters, digits, '_' and '-'");
        if (!names_.insert(name).second) fail(node, "two routes are called " + name);
    }

    const std::string &path_;
    Config config_;
    std::set<std::string> names_;
};

std::string from_environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

// Without blanks and quotes around it.
std::string trimmed(const std::string &part) {
    const size_t begin = part.find_first_not_of(" \t\""), end = part.find_last_not_of(" \t\r\"");
    return begin == std::string::npos ? "" : part.substr(begin, end - begin + 1);
}

Credentials credentials_in(const std::string &path) {
    struct stat info {};
    std::ifstream file(path); // opened first: what is looked at is what is read, but for a swap
    if (!file || stat(path.c_str(), &info) != 0)
        throw ConfigError(path + ": " + std::strerror(errno));
    if (info.st_mode & 077) throw ConfigError(path + ": others may read it; chmod 0600 it");
    Credentials found;
    for (std::string line; std::getline(file, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = trimmed(line.substr(0, equals));
        if (key == "user") found.user = trimmed(line.substr(equals + 1));
        if (key == "password") found.password = trimmed(line.substr(equals + 1));
    }
    if (found.user.empty()) throw ConfigError(path + ": it has no line \"user = ...\"");
    return found;
}

} // namespace

std::string text_of(const Endpoint &endpoint) {
    static const char *const kinds[] = {"channel:", "fq:", "amqp:"};
    return kinds[endpoint.kind] + endpoint.name;
}

std::vector<std::string> RouteConfig::queues() const {
    if (shards == 1) return {remote().name};
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(shards));
    for (int i = 0; i < shards; ++i) names.push_back(remote().name + "." + std::to_string(i));
    return names;
}

Config load_config(const std::string &path) { return Loader(path).load(); }

Credentials load_credentials(const BrokerConfig &broker) {
    if (!broker.credentials.empty()) return credentials_in(broker.credentials);
    Credentials found{from_environment("HALVO_RELAY_USER"),
                      from_environment("HALVO_RELAY_PASSWORD")};
    if (found.user.empty())
        throw ConfigError(
            "no credentials: [broker] names no file, and HALVO_RELAY_USER is not set");
    return found;
}

} // namespace halvo::relay
