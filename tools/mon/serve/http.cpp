#include "tools/mon/serve/http.h"

#include <microhttpd.h>
#include <sys/socket.h>

#include <cstring>
#include <list>
#include <mutex>

#include "tools/frame/clock.h"
#include "tools/frame/program.h"
#include "tools/mon/serve/listen.h"

namespace halvo::mon {

using tools::kFailed;
using tools::ToolError;

namespace {

struct Connection {
    int socket;
    bool answering = false;
    double since = tools::monotonic(); // of the request, or of its answer
    std::list<Connection>::iterator place;
};

struct Header {
    const char *name, *value;
};
constexpr Header kHeaders[] = {
    {"Cache-Control", "no-store"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};
constexpr char kNothingLoads[] = "default-src 'none'; frame-ancestors 'none'";

MHD_Result queue(MHD_Connection *connection, const Response &response) {
    // The library keeps the body as long as a client takes it, whatever the sampler does meanwhile.
    const auto keep = new std::shared_ptr<const std::string>(response.body);
    MHD_Response *raw = MHD_create_response_from_buffer_with_free_callback_cls(
        (*keep)->size(), const_cast<char *>((*keep)->data()),
        [](void *body) { delete static_cast<std::shared_ptr<const std::string> *>(body); }, keep);
    if (!raw) {
        delete keep;
        return MHD_NO;
    }
    for (const Header &header : kHeaders) MHD_add_response_header(raw, header.name, header.value);
    MHD_add_response_header(raw, "Content-Type", response.type);
    MHD_add_response_header(raw, "Content-Security-Policy",
                            response.policy.empty() ? kNothingLoads : response.policy.c_str());
    if (response.status == 405) MHD_add_response_header(raw, "Allow", "GET, HEAD");
    const MHD_Result queued = MHD_queue_response(connection, response.status, raw);
    MHD_destroy_response(raw);
    return queued;
}

Request request_of(MHD_Connection *connection, const char *path) {
    return {path, [connection](const char *name) -> std::optional<std::string> {
                const char *value =
                    MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
                return value ? std::optional<std::string>(value) : std::nullopt;
            }};
}

bool is_read(const std::string &method) { return method == "GET" || method == "HEAD"; }

Response answer(MHD_Connection *connection, const char *path, const std::string &method,
                const HttpServer::Handler &handler) {
    const char *host = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host");
    if (!host) return text_response(400, "a Host header is missing\n");
    if (!is_own_host(host)) return text_response(421, "the Host must be an address or localhost\n");
    if (!is_read(method)) return text_response(405, "GET and HEAD only\n");
    try {
        return handler(request_of(connection, path));
    } catch (const std::exception &error) {
        return text_response(500, std::string(error.what()) + "\n");
    }
}

// A name never holds a NUL, and must not end at one: what asks for one stays as it was sent.
size_t unescape(void *, MHD_Connection *, char *text) {
    return std::strstr(text, "%00") ? std::strlen(text) : MHD_http_unescape(text);
}

void be_silent(void *, const char *, va_list) {}

} // namespace

Response text_response(unsigned status, std::string text) {
    Response response;
    response.status = status;
    response.body = std::make_shared<const std::string>(std::move(text));
    return response;
}

struct HttpServer::State {
    explicit State(Handler to_call) : handler(std::move(to_call)) {}

    Handler handler;
    std::string url;
    std::mutex mutex;
    std::list<Connection> connections;
    MHD_Daemon *daemon = nullptr;

    // Called first with the headers and then, until there is an answer, with pieces of a body, which
    // nobody wants. An answer to the first call would close the connection behind it: that is for
    // requests that may have a body.
    static MHD_Result on_request(void *self, MHD_Connection *connection, const char *path,
                                 const char *method, const char *, const char *, size_t *body_bytes,
                                 void **called) {
        auto *state = static_cast<State *>(self);
        if (!*called && is_read(method)) {
            *called = self;
            return MHD_YES;
        }
        if (*body_bytes > 0) {
            *body_bytes = 0;
            return MHD_YES;
        }
        state->mark(connection, true);
        return queue(connection, answer(connection, path, method, state->handler));
    }

    static void on_completed(void *self, MHD_Connection *connection, void **,
                             MHD_RequestTerminationCode) {
        static_cast<State *>(self)->mark(connection, false);
    }

    static void on_connection(void *self, MHD_Connection *connection, void **context,
                              MHD_ConnectionNotificationCode code) {
        auto *state = static_cast<State *>(self);
        const std::lock_guard lock(state->mutex);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const auto *info =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            Connection &made = state->connections.emplace_back();
            made.socket = info ? info->connect_fd : -1;
            made.place = std::prev(state->connections.end());
            *context = &made;
        } else if (*context) { // the socket is closed behind this
            state->connections.erase(static_cast<Connection *>(*context)->place);
            *context = nullptr;
        }
    }

    void mark(MHD_Connection *connection, bool answering) {
        const auto *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        auto *known = info ? static_cast<Connection *>(info->socket_context) : nullptr;
        if (!known) return;
        const std::lock_guard lock(mutex);
        known->answering = answering;
        known->since = tools::monotonic();
    }
};

HttpServer::HttpServer(const ListenAddress &address, Handler handler)
    : state_(std::make_unique<State>(std::move(handler))) {
    Listener listener = listen_at(address, kConnections);
    state_->url = listener.url;
    // A thread for each connection: with fewer, clients that are slow keep the others waiting.
    state_->daemon = MHD_start_daemon(
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
            MHD_USE_ITC | MHD_USE_ERROR_LOG,
        0, nullptr, nullptr, State::on_request, state_.get(), //
        MHD_OPTION_EXTERNAL_LOGGER, be_silent, nullptr,       //
        MHD_OPTION_LISTEN_SOCKET, listener.socket.release(),  //
        MHD_OPTION_CONNECTION_LIMIT, kConnections,            //
        MHD_OPTION_CONNECTION_TIMEOUT, kSeconds,              //
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, size_t{kRequestBytes}, MHD_OPTION_THREAD_STACK_SIZE,
        size_t{256} * 1024,                              //
        MHD_OPTION_STRICT_FOR_CLIENT, 1,                 //
        MHD_OPTION_UNESCAPE_CALLBACK, unescape, nullptr, //
        MHD_OPTION_NOTIFY_CONNECTION, State::on_connection, state_.get(),
        MHD_OPTION_NOTIFY_COMPLETED, State::on_completed, state_.get(), MHD_OPTION_END);
    if (!state_->daemon) throw ToolError(kFailed, state_->url + ": the server cannot be started");
}

HttpServer::~HttpServer() { MHD_stop_daemon(state_->daemon); }

std::string HttpServer::url() const { return state_->url; }

void HttpServer::end_overdue() {
    const std::lock_guard lock(state_->mutex);
    for (const Connection &connection : state_->connections) {
        const double limit = connection.answering ? kAnswerSeconds : kSeconds;
        if (tools::monotonic() - connection.since > limit) shutdown(connection.socket, SHUT_RDWR);
    }
}

} // namespace halvo::mon
