// halvo-mon: a small HTTP server of documents: on an address of the operator's choice, within limits,
// for GET and HEAD, with headers that leave a browser no choice.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/mon/serve/listen.h"

namespace halvo::mon {

struct Request {
    std::string path; // decoded, from the slash on
    // An argument of the query, decoded; none when it is not there.
    std::function<std::optional<std::string>(const char *)> argument;
};

struct Response {
    unsigned status = 200;
    const char *type = "text/plain; charset=utf-8";
    std::shared_ptr<const std::string> body; // shared with every client that gets it
    std::string policy;                      // Content-Security-Policy; empty: nothing may load
};

Response text_response(unsigned status, std::string text);

// Serves from the constructor to the destructor, which ends connections at once. handler() runs in a
// thread for each connection, several at a time.
class HttpServer {
public:
    static constexpr unsigned kConnections = 32;
    static constexpr unsigned kSeconds = 10;        // for a request, and between requests
    static constexpr unsigned kAnswerSeconds = 60;  // for a client to take an answer
    static constexpr unsigned kRequestBytes = 8192; // with all headers

    using Handler = std::function<Response(const Request &)>;
    HttpServer(const ListenAddress &address, Handler handler); // throws ToolError
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    std::string url() const;
    // Ends connections that are over their time, for a client that sends or takes a byte now and then
    // is never idle. To be called about once a second.
    void end_overdue();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace halvo::mon
