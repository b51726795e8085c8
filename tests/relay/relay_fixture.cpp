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

Broker::Broker(const std::vector<std::string> &lines,
               const std::map<std::string, std::string> &environment)
    : directory_(make_test_directory()) {
    for (const auto &[name, value] : environment) environment_ += name + "='" + value + "' ";
    for (const std::string &line : lines) lines_ += " '" + line + "'";
    const std::string remove =
        "cat >/dev/null; " + kScript + " remove " + directory_ + "/broker; rm -rf " + directory_;
    guard_ = popen(remove.c_str(), "we");
    start();
}

Broker::~Broker() { pclose(guard_); }

std::string Broker::command(const std::string &what, const std::string &more) const {
    const std::string line =
        environment_ + kScript + " " + what + " " + directory_ + "/broker" + more;
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

void Machine::credentials(const std::string &user, const std::string &password, int mode) const {
    replace_file(path("credentials"), "user = " + user + "\npassword = " + password + "\n");
    // Refused until then, tried again.
    chmod(path("credentials").c_str(), static_cast<mode_t>(mode));
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
    relay_ = std::make_unique<Peer>([this] {
        const int out = open(path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        return become({binaries_ + "/halvo-relay", "run", path("relay.toml")}, 0, out, out);
    });
}

double Machine::processor_seconds() const {
    const std::string stat = content_of("/proc/" + std::to_string(relay_->pid()) + "/stat");
    long user = 0, system = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 2,
                "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user, &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
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
        if (initialise(segment) != ESMS_OK ||
            frx_openChannel(&end, "writer", 0, 'w', 1000) != ESMS_OK)
            return 1;
        q_recover(0, 'w');
        for (int i = from; i <= to; ++i) {
            char number[16];
            std::snprintf(number, sizeof number, "%08d ", i);
            std::string body(number);
            body.resize(length, static_cast<char>('a' + i % 26));
            int result = ESMS_TIMEOUT;
            while (result == ESMS_TIMEOUT)
                result = ::frx_write(&end, i % 7 + 1, body.data(), length, 1000);
            if (result != ESMS_OK) return 2;
        }
        return 0;
    });
}

namespace {

int read_into(Ledger &ledger, const Segment &segment, int n, int wanted) {
    FrxChannel end;
    if (initialise(segment) != ESMS_OK || frx_openChannel(&end, "reader", 0, 'r', 1000) != ESMS_OK)
        return 1;
    q_recover(0, 'r');
    Slot slot(q_chnnl2q(0));
    std::vector<char> seen(static_cast<size_t>(n) + 1);
    int64_t last = 0, heard = milliseconds_now();
    for (;;) {
        const int length = frx_read(&end, slot.data(), 500);
        if (length == ESMS_TIMEOUT) {
            if (ledger.got >= wanted || milliseconds_now() - heard > kQuiet * 1000) break;
            continue;
        }
        if (length < 0) return 2;
        heard = milliseconds_now();
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

void expect_perfect(const Ledger &ledger, int n) {
    EXPECT_EQ(ledger.lost, 0);
    EXPECT_EQ(ledger.doubled, 0);
    EXPECT_EQ(ledger.reordered, 0);
    EXPECT_EQ(ledger.torn, 0);
    EXPECT_EQ(ledger.got, n);
}

std::string run_python(const Broker &broker, const std::string &program,
                       const std::vector<std::string> &words) {
    std::vector<std::string> all{"/usr/bin/python3", "-c",
                                 "import pika, sys, urllib.request\nwords = sys.argv[2:]\n"
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

} // namespace halvo::test
