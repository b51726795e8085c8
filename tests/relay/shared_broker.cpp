#include "tests/relay/shared_broker.h"

#include "tools/fixture/directory.h"

namespace halvo::test {

namespace {

// An authority, a server's certificate for "localhost", a client's, and another authority.
const char *const kMakeCertificates = R"(cd "$0" && exec >/dev/null 2>&1
authority() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "/CN=$1" -keyout "$1.key" -out "$1.pem"; }
signed() {
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=$2" -keyout "$1.key" -out "$1.csr" &&
    printf 'subjectAltName=DNS:%s' "$2" >"$1.ext" &&
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile "$1.ext" -out "$1.pem"
}
authority ca && authority other && signed server localhost && signed client client)";

std::string certificates;
int secure_port;

std::unique_ptr<Broker> start_broker() {
    certificates = make_test_directory();
    static const Descriptor alive = start_janitor(certificates, "");
    if (run_program({"/bin/sh", "-c", kMakeCertificates, certificates}).status != 0)
        throw std::runtime_error("no certificates: openssl");
    secure_port = 32000 + getpid() % 500;
    return std::make_unique<Broker>(std::vector<std::string>{
        "max_message_size = " + std::to_string(kMostBytes),
        "listeners.ssl.1 = 127.0.0.1:" + std::to_string(secure_port),
        "ssl_options.cacertfile = " + certificates + "/ca.pem",
        "ssl_options.certfile = " + certificates + "/server.pem",
        "ssl_options.keyfile = " + certificates + "/server.key", "ssl_options.verify = verify_peer",
        "ssl_options.fail_if_no_peer_cert = true"});
}

} // namespace

Broker &shared_broker() {
    static const std::unique_ptr<Broker> broker = start_broker();
    return *broker;
}

int tls_port() { return secure_port; }

std::string certificate(const std::string &name) { return certificates + "/" + name; }

} // namespace halvo::test
