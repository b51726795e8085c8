// The broker that the tests of a program share, and a pair of relays over it.
#include "tests/relay/relay_fixture.h"
#include "tests/support/files.h"

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

struct SharedBroker {
    TestDirectory certificates;
    int secure_port = free_port();
    std::unique_ptr<Broker> broker;
    SharedBroker() {
        if (run_program({"/bin/sh", "-c", kMakeCertificates, certificates.path()}).status != 0)
            throw std::runtime_error("no certificates: openssl");
        broker = std::make_unique<Broker>(std::vector<std::string>{
            "max_message_size = " + std::to_string(kMostBytes),
            "listeners.ssl.1 = 127.0.0.1:" + std::to_string(secure_port),
            "ssl_options.cacertfile = " + certificates.path("ca.pem"),
            "ssl_options.certfile = " + certificates.path("server.pem"),
            "ssl_options.keyfile = " + certificates.path("server.key"),
            "ssl_options.verify = verify_peer", "ssl_options.fail_if_no_peer_cert = true"});
    }
};

SharedBroker &shared() {
    static SharedBroker only;
    return only;
}

} // namespace

Broker &shared_broker() { return *shared().broker; }
int tls_port() { return shared().secure_port; }
std::string certificate(const std::string &name) { return shared().certificates.path(name); }

void RelayPair::SetUp() {
    if (!Broker::is_installed()) GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
    queue_ = testing::UnitTest::GetInstance()->current_test_info()->name();
    make(512, 256);
}

void RelayPair::TearDown() {
    if (HasFailure() && here_)
        std::fprintf(stderr, "%s----\n%s", here_->log().c_str(), there_->log().c_str());
}

void RelayPair::make(uint32_t slots_there, uint32_t size_there) {
    const std::string url = url_of(shared_broker());
    here_ = std::make_unique<Machine>(url, HALVO_BIN, 512, 32768);
    there_ = std::make_unique<Machine>(url, HALVO_BIN, slots_there, size_there);
}

void RelayPair::route(const std::string &out, const std::string &in) {
    here_->route("from = \"channel:MT01\"\nto = \"amqp:" + queue_ + "\"\n" + out);
    there_->route("from = \"amqp:" + queue_ + "\"\nto = \"channel:MT01\"\n" + in);
}

void RelayPair::start() {
    there_->declare();
    here_->start();
    there_->start();
}

std::string RelayPair::fq(std::vector<std::string> words, const std::string &input) const {
    words.insert(words.begin(), HALVO_BIN "/halvo-fq");
    const Outcome done = run_program(words, input);
    EXPECT_EQ(done.status, 0) << done.err;
    return done.out;
}

} // namespace halvo::test
