#include "tests/relay/relay_fixture.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <random>

#include "tests/support/files.h"

namespace halvo::test {

namespace {

const std::string kScript = HALVO_SOURCE "/dev/broker.sh";
// Seconds without a message that end a reader; a broker may take a minute to start.
constexpr int kQuiet = 150;

// At once: a relay that starts may be reading it.
void replace_file(const std::string &path, const std::string &text) {
    write_file(path + ".new", text);
    std::rename((path + ".new").c_str(), path.c_str());
}

} // namespace

bool Broker::is_installed() { return access("/usr/lib/rabbitmq/bin/rabbitmq-server", X_OK) == 0; }

Broker::Broker(std::string lines, std::string environment)
    : directory_(make_test_directory()), lines_(std::move(lines)),
      environment_(std::move(environment)) {
    const std::string remove =
        "cat >/dev/null; " + kScript + " remove " + directory_ + "/broker; rm -rf " + directory_;
    guard_ = popen(remove.c_str(), "we");
    start();
}

Broker::~Broker() { pclose(guard_); }

std::string Broker::command(const std::string &what, const std::string &more) const {
    const std::string line =
        environment_ + " " + kScript + " " + what + " " + directory_ + "/broker " + more;
    std::FILE *out = popen(line.c_str(), "re");
    char text[256] = "";
    if (!std::fgets(text, sizeof text, out)) text[0] = '\0';
    if (pclose(out) != 0) throw std::runtime_error("broker.sh " + what);
    return text;
}

void Broker::start() { port_ = std::atoi(command("start", lines_).c_str()); }
void Broker::signal(int number) const { ::kill(std::atoi(command("pid").c_str()), number); }

std::string url_of(const Broker &broker) {
    return "\"amqp://127.0.0.1:" + std::to_string(broker.port()) + "\"";
}

int free_port() { // below those that the system gives to clients
    for (std::random_device random;;) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(20000 + random() % 12000));
        const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (bind(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
            return ntohs(address.sin_port);
    }
}

Machine::Machine(const std::string &urls, const std::string &binaries, uint32_t slots,
                 uint32_t slot_size)
    : segment_(SegmentBuilder().channel("MT01", 'M', slots, slot_size).build()),
      binaries_(binaries), urls_(urls) {
    credentials("guest", "guest");
}

Machine::~Machine() {
    if (testing::Test::HasFailure()) std::fprintf(stderr, "----\n%s", log().c_str());
}

void Machine::credentials(const std::string &user, const std::string &password, mode_t mode) const {
    replace_file(path("credentials"), "user = " + user + "\npassword = " + password + "\n");
    // Refused until then, tried again.
    chmod(path("credentials").c_str(), mode);
}

void Machine::route(const std::string &lines, const std::string &name) {
    routes_ += "[[route]]\nname = \"" + name + "\"\n" + lines + "\n";
}

void Machine::save() const {
    const std::string key = segment_.key_file(), directory = key.substr(0, key.rfind('/'));
    replace_file(path("relay.toml"),
                 "[relay]\nkey = \"" + key + "\"\nstate = \"" + directory + "\"\n" + relay_lines_ +
                     "[broker]\nurl = [" + urls_ + "]\ncredentials = \"" + path("credentials") +
                     "\"\npause_first = 50\npause_most = 1000\n" + broker_ + routes_);
}

Outcome Machine::tool(const std::string &command, const std::string &option) const {
    save();
    std::vector<std::string> words{binaries_ + "/halvo-relay", command, path("relay.toml")};
    if (!option.empty()) words.insert(words.end() - 1, option);
    return run_program(words);
}

void Machine::start() {
    save();
    relay_ = start_program({binaries_ + "/halvo-relay", "run", path("relay.toml")}, path("log"));
}

double Machine::processor_seconds() const {
    clockid_t clock = 0;
    timespec used{};
    clock_getcpuclockid(relay_->pid(), &clock);
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

void Machine::descriptors(rlim_t most) const {
    const rlimit limit{most, 1024};
    prlimit(relay_->pid(), RLIMIT_NOFILE, &limit, nullptr);
}

std::string Machine::log() const { return exists(path("log")) ? content_of(path("log")) : ""; }

bool Machine::logs(const std::string &text) const {
    if (comes_true([&] { return log().find(text) != std::string::npos; }, 60)) return true;
    std::fprintf(stderr, "not in the log: %s\n%s\n", text.c_str(), log().c_str());
    return false;
}

int64_t Machine::figure(const std::string &name, const std::string &route) const {
    const std::string text = tool("status", "--metrics").out;
    const size_t at = text.find("halvo_relay_" + name + "{route=\"" + route + "\"");
    if (at == std::string::npos) return -2;
    return std::atoll(text.c_str() + text.find("} ", at) + 2);
}

bool Machine::reaches(const std::string &name, int64_t least, const std::string &route) const {
    return comes_true([&] { return figure(name, route) >= least; }, 60);
}

std::unique_ptr<Peer> write_numbers(const Segment &segment, int from, int to, uint32_t length) {
    return std::make_unique<Peer>([=, &segment] {
        FrxChannel end;
        if (!start_with(segment, end, 'w')) return 1;
        for (int i = from; i <= to; ++i) {
            char number[16];
            std::snprintf(number, sizeof number, "%08d ", i);
            std::string body(number);
            body.resize(length, static_cast<char>('a' + i % 26));
            if (::frx_write(&end, i % 7 + 1, body.data(), length, kQuiet * 1000) != ESMS_OK)
                return 2;
        }
        return 0;
    });
}

namespace {

int read_into(Ledger &ledger, const Segment &segment, int n, int wanted) {
    FrxChannel end;
    if (!start_with(segment, end, 'r')) return 1;
    Slot slot(q_chnnl2q(0));
    std::vector<char> seen(static_cast<size_t>(n) + 1);
    int last = 0;
    for (;;) {
        const int length = frx_read(&end, slot.data(), ledger.got < wanted ? kQuiet * 1000 : 500);
        if (length == ESMS_TIMEOUT) break;
        if (length < 0) return 2;
        ++ledger.got;
        const std::string body = slot.body();
        const int i = std::atoi(body.c_str());
        if (i < 1 || i > n || slot.header().type != i % 7 + 1 || body.back() != 'a' + i % 26) {
            ++ledger.torn;
            continue;
        }
        ledger.doubled += seen[static_cast<size_t>(i)]++ != 0;
        ledger.reordered += i < last;
        last = i;
    }
    ledger.lost = std::count(seen.begin() + 1, seen.end(), 0);
    return 0;
}

} // namespace

NumberReader::NumberReader(const Segment &segment, int n, int wanted)
    : ledger_(shared_object<Ledger>()),
      peer_([=, this, &segment] { return read_into(ledger_, segment, n, wanted); }) {}

Ledger NumberReader::result() {
    EXPECT_EQ(peer_.wait(), 0);
    return ledger_;
}

std::string run_python(const Broker &broker, const std::string &program,
                       const std::vector<std::string> &words) {
    std::vector<std::string> all{"/usr/bin/python3", "-c",
                                 "import pika, sys\nwords = sys.argv[2:]\n"
                                 "channel = pika.BlockingConnection(pika.ConnectionParameters("
                                 "'127.0.0.1', int(sys.argv[1]))).channel()\n"
                                 "channel.confirm_delivery()\n" +
                                     program + "\nchannel.connection.close()",
                                 std::to_string(broker.port())};
    all.insert(all.end(), words.begin(), words.end());
    const Outcome done = run_program(all);
    EXPECT_EQ(done.status, 0) << done.err;
    return done.out;
}

// ---- The broker that the tests of a program share, and a pair of relays over it

namespace {

// An authority, a server's certificate for "localhost", a client's, and another authority.
const char *const kMakeCertificates = R"(cd "$0" && exec >/dev/null 2>&1
certify() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "/CN=$2" -addext "subjectAltName=DNS:$2" -keyout "$1.key" -out "$1.pem" $3
}
signed="-CA ca.pem -CAkey ca.key"
certify ca ca && certify other other && certify server localhost "$signed" &&
    certify client client "$signed")";

struct SharedBroker {
    TestDirectory certificates;
    int secure_port = free_port();
    std::unique_ptr<Broker> broker;
    SharedBroker() {
        if (run_program({"/bin/sh", "-c", kMakeCertificates, certificates.path()}).status != 0)
            throw std::runtime_error("no certificates: openssl");
        broker = std::make_unique<Broker>(
            "'max_message_size = " + std::to_string(kMostBytes) +
            "' 'listeners.ssl.1 = 127.0.0.1:" + std::to_string(secure_port) +
            "' 'ssl_options.cacertfile = " + certificates.path("ca.pem") +
            "' 'ssl_options.certfile = " + certificates.path("server.pem") +
            "' 'ssl_options.keyfile = " + certificates.path("server.key") +
            "' 'ssl_options.verify = verify_peer' 'ssl_options.fail_if_no_peer_cert = true'");
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
    out_ = "from = \"channel:MT01\"\nto = \"amqp:" + queue_ + "\"\n";
    in_ = "from = \"amqp:" + queue_ + "\"\nto = \"channel:MT01\"\n";
    make(512, 256);
}

void RelayPair::make(uint32_t slots_there, uint32_t size_there) {
    const std::string url = url_of(shared_broker());
    here_ = std::make_unique<Machine>(url, HALVO_BIN, 512, 32768);
    there_ = std::make_unique<Machine>(url, HALVO_BIN, slots_there, size_there);
}

void RelayPair::route(const std::string &out, const std::string &in) {
    here_->route(out_ + out);
    there_->route(in_ + in);
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
