#include "tests/relay/relay_fixture.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tools/fixture/directory.h"

namespace halvo::test {

namespace {

const std::string kScript = HALVO_SOURCE "/tests/relay/broker.sh";

std::string content_of(const std::string &path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// At once: a relay that starts may be reading it.
void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path + ".new", std::ios::trunc) << text;
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

std::string Broker::command(const std::string &words) const {
    const std::string line =
        environment_ + kScript + " " + words.substr(0, words.find(' ')) + " " + directory_ +
        "/broker" + (words.find(' ') == std::string::npos ? "" : words.substr(words.find(' ')));
    std::FILE *out = popen(line.c_str(), "re");
    char text[256] = "";
    if (!std::fgets(text, sizeof text, out)) text[0] = '\0';
    if (pclose(out) != 0) throw std::runtime_error("broker.sh " + words);
    return text;
}

void Broker::start() { port_ = std::atoi(command("start" + lines_).c_str()); }

void Broker::signal(int number) const { ::kill(std::atoi(command("pid").c_str()), number); }

std::string url_of(const Broker &broker) {
    return "\"amqp://127.0.0.1:" + std::to_string(broker.port()) + "\"";
}

Machine::Machine(const std::string &urls, const std::string &binaries, uint32_t slots,
                 uint32_t slot_size)
    : segment_(SegmentBuilder().channel("MT01", 'M', slots, slot_size).build()),
      binaries_(binaries), urls_(urls) {
    credentials("guest", "guest");
}

void Machine::credentials(const std::string &user, const std::string &password, int mode) const {
    write_file(path("credentials"), "user = " + user + "\npassword = " + password + "\n");
    chmod(path("credentials").c_str(),
          static_cast<mode_t>(mode)); // refused until then, tried again
}

void Machine::route(const std::string &lines, const std::string &name) {
    routes_ += "[[route]]\nname = \"" + name + "\"\n" + lines + "\n";
}

void Machine::save() const {
    const std::string key = segment_.key_file(), directory = key.substr(0, key.rfind('/'));
    write_file(path("relay.toml"),
               "[relay]\nkey = \"" + key + "\"\nstate = \"" + directory + "\"\n" + relay_lines_ +
                   "[broker]\nurl = [" + urls_ + "]\ncredentials = \"" + path("credentials") +
                   "\"\npause_first = 50\npause_most = 1000\n" + broker_ + routes_);
}

Outcome Machine::tool(const std::string &command, const std::string &option) const {
    save();
    std::vector<std::string> words{binaries_ + "/halvo-relay", command};
    if (!option.empty()) words.push_back(option);
    words.push_back(path("relay.toml"));
    return run_program(words);
}

void Machine::start() {
    save();
    const std::string program = binaries_ + "/halvo-relay", config = path("relay.toml"),
                      log = path("log");
    relay_ = std::make_unique<Peer>([=] {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(out, STDERR_FILENO);
        dup2(out, STDOUT_FILENO);
        execl(program.c_str(), "halvo-relay", "run", config.c_str(), nullptr);
        return 127;
    });
}

double Machine::processor_seconds() const {
    std::string stat = content_of("/proc/" + std::to_string(relay_->pid()) + "/stat");
    long user = 0, system = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 2,
                "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user, &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string Machine::log() const { return content_of(path("log")); }

bool Machine::logs(const std::string &text, int seconds) const {
    for (const int64_t end = milliseconds_now() + seconds * 1000; milliseconds_now() < end;
         usleep(20000))
        if (log().find(text) != std::string::npos) return true;
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
    for (const int64_t end = milliseconds_now() + 20000; milliseconds_now() < end; usleep(50000))
        if (figure(name, route) >= least) return true;
    return false;
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

int read_into(Ledger &ledger, const Segment &segment, int n, int quiet_seconds) {
    FrxChannel end;
    if (initialise(segment) != ESMS_OK || frx_openChannel(&end, "reader", 0, 'r', 1000) != ESMS_OK)
        return 1;
    q_recover(0, 'r');
    std::vector<char> seen(static_cast<size_t>(n) + 1),
        slot(static_cast<size_t>(frx_sizeOfBlock(0)));
    int64_t last = 0, heard = milliseconds_now();
    for (;;) {
        const int length = frx_read(&end, slot.data(), 500);
        if (length == ESMS_TIMEOUT) {
            if (ledger.got >= n || milliseconds_now() - heard > quiet_seconds * 1000) break;
            continue;
        }
        if (length < 0) return 2;
        heard = milliseconds_now();
        ++ledger.got;
        const auto *message = reinterpret_cast<const qmsg *>(slot.data());
        const std::string body(reinterpret_cast<const char *>(message->data),
                               static_cast<size_t>(length));
        const int i = std::atoi(body.c_str());
        if (i < 1 || i > n || message->type != i % 7 + 1 || body.back() != 'a' + i % 26) {
            ++ledger.torn;
            continue;
        }
        ledger.doubled += seen[static_cast<size_t>(i)]++ != 0;
        ledger.reordered += i < last;
        last = i;
    }
    for (int i = 1; i <= n; ++i) ledger.lost += seen[static_cast<size_t>(i)] == 0;
    return 0;
}

} // namespace

NumberReader::NumberReader(const Segment &segment, int n, int quiet_seconds)
    : ledger_(static_cast<Ledger *>(mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
      peer_(std::make_unique<Peer>([this, n, quiet_seconds, &segment] {
          return read_into(*ledger_, segment, n, quiet_seconds);
      })) {}

NumberReader::~NumberReader() {
    peer_.reset();
    munmap(ledger_, sizeof *ledger_);
}

Ledger NumberReader::result() {
    EXPECT_EQ(peer_->wait(), 0);
    return *ledger_;
}

Outcome run_python(const std::string &program, const std::vector<std::string> &arguments) {
    std::vector<std::string> words{"/usr/bin/python3", "-c", program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run_program(words);
}

} // namespace halvo::test
