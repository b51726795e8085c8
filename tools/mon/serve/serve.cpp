#include "tools/mon/serve/serve.h"

#include <poll.h>
#include <sys/random.h>

#include <charconv>
#include <csignal>
#include <mutex>

#include "core/base/posix.h"
#include "tools/frame/clock.h"
#include "tools/frame/program.h"
#include "tools/mon/look/tracker.h"
#include "tools/mon/serve/api.h"
#include "tools/mon/serve/history.h"
#include "tools/mon/serve/prometheus.h"

namespace halvo::mon {

using tools::monotonic;

namespace {

using Text = std::shared_ptr<const std::string>;
constexpr char kJson[] = "application/json";
constexpr char kMetrics[] = "text/plain; version=0.0.4; charset=utf-8";
constexpr char kChannels[] = "/api/channels";
constexpr double kStaleSeconds = 10; // a sampler that is silent for so long hangs

Response with(Text body, const char *type) {
    Response response;
    response.type = type;
    response.body = std::move(body);
    return response;
}
Response with(std::string body, const char *type) {
    return with(std::make_shared<const std::string>(std::move(body)), type);
}

std::string fresh_nonce() {
    unsigned char bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        throw std::runtime_error("no random numbers");
    std::string text;
    for (const unsigned char byte : bytes)
        for (const int half : {byte >> 4, byte & 15}) text += "0123456789abcdef"[half];
    return text;
}

// What the last sample showed, and what is asked of it again and again made once. One thread samples,
// a thread of each connection asks.
class Figures {
public:
    explicit Figures(const std::string &key_file) : sampler_(key_file) {
        serving_.key_file = key_file;
        serving_.server = static_cast<int64_t>(tools::seconds_of(CLOCK_REALTIME) * 1000);
    }

    void sample() {
        const std::lock_guard lock(mutex_);
        sample_ = sampler_.take();
        tracker_.judge(sample_);
        ++serving_.number;
        if (sample_.up && sample_.id != id_) {
            id_ = sample_.id;
            ++serving_.epoch;
            history_.restart(sample_.channels.size());
        }
        if (sample_.up) history_.add(serving_.number, sample_);
        channels_ = metrics_ = nullptr;
    }

    Text channels() {
        return once(channels_, [&] { return channels_json(serving_, sample_); });
    }
    Text metrics() {
        return once(metrics_, [&] { return prometheus_text(sample_, sampler_.view()); });
    }

    Response channel(const std::string &name) {
        const std::lock_guard lock(mutex_);
        if (!sample_.up) return text_response(503, sample_.fault + "\n");
        const int number = number_of(name);
        if (number < 0) return text_response(404, "no such channel\n");
        return with(channel_json(serving_, sample_, number, *sampler_.view()), kJson);
    }

    Response history(uint64_t since, const std::optional<std::string> &name) {
        const std::lock_guard lock(mutex_);
        const int only = name ? number_of(*name) : -1;
        if (name && only < 0) return text_response(404, "no such channel\n");
        return with(json_head(serving_, sample_) + "," +
                        history_.json_members(since, sample_, only) + "}",
                    kJson);
    }

    Response health() {
        const std::lock_guard lock(mutex_);
        if (!sample_.up) return text_response(503, sample_.fault + "\n");
        if (monotonic() - sample_.taken > kStaleSeconds)
            return text_response(503, "no sample for more than 10 seconds\n");
        return text_response(200, "ok\n");
    }

private:
    template <class Make>
    Text once(Text &text, Make make) {
        const std::lock_guard lock(mutex_);
        if (!text) text = std::make_shared<const std::string>(make());
        return text;
    }

    int number_of(const std::string &name) const {
        for (const ChannelSample &channel : sample_.channels)
            if (channel.name == name) return channel.number;
        return -1;
    }

    std::mutex mutex_;
    Sampler sampler_;
    Tracker tracker_;
    History history_;
    Sample sample_;
    Serving serving_;
    int id_ = -1;
    Text channels_, metrics_; // null until somebody asks
};

Response page_response() {
    const std::string nonce = fresh_nonce();
    Response response = with(page(nonce), "text/html; charset=utf-8");
    response.policy = "default-src 'none'; script-src 'nonce-" + nonce + "'; style-src 'nonce-" +
                      nonce +
                      "'; connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
                      "frame-ancestors 'none'; require-trusted-types-for 'script'";
    return response;
}

Response history_response(Figures &figures, const Request &request) {
    const std::string text = request.argument("since").value_or("0");
    uint64_t since = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), since);
    if (error != std::errc() || end != text.data() + text.size())
        return text_response(400, "since is the number of a sample\n");
    return figures.history(since, request.argument("channel"));
}

Response answer(Figures &figures, const Request &request) {
    const std::string &path = request.path;
    if (path == "/") return page_response();
    if (path == "/metrics") return with(figures.metrics(), kMetrics);
    if (path == "/healthz") return figures.health();
    if (path == "/api/history") return history_response(figures, request);
    if (path == kChannels) return with(figures.channels(), kJson);
    const std::string folder = std::string(kChannels) + "/";
    if (path.starts_with(folder)) return figures.channel(path.substr(folder.size()));
    return text_response(404, "nothing here; try /, /metrics, /api/channels, /api/history, "
                              "/healthz\n");
}

// Signals come while this thread waits and at no other time or place.
class Signals {
public:
    void wait(double seconds) const {
        if (seconds <= 0) seconds = 0;
        timespec time{};
        time.tv_sec = static_cast<time_t>(seconds);
        time.tv_nsec = static_cast<long>((seconds - static_cast<double>(time.tv_sec)) * 1e9);
        ppoll(nullptr, 0, &time, &off_.before());
    }

private:
    const SignalsOff off_;
};

} // namespace

void serve(const ServeOptions &options, int output) {
    Figures figures(options.key_file);
    figures.sample();
    const Signals signals; // blocked before there are other threads
    HttpServer server(options.listen,
                      [&](const Request &request) { return answer(figures, request); });
    tools::write_out(output, "standard output", "serving " + server.url() + "\n");
    for (double next = monotonic() + 1; !tools::stop_signal();) {
        signals.wait(next - monotonic());
        const double now = monotonic();
        if (now < next) continue;
        next = std::max(next + 1, now); // without hurry after a pause
        figures.sample();
        server.end_overdue();
    }
}

} // namespace halvo::mon
