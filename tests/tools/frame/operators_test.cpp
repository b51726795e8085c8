// What operators meet in all programs alike: causes of failures, rights, and Korean names.
#include <sys/stat.h>

#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/files.h"
#include "tests/support/ipc.h"
#include "tests/support/program.h"

using namespace halvo::test;

namespace {

const std::string kMonitor = HALVO_BIN "/halvo-mon", kManager = HALVO_BIN "/halvo-qm",
                  kSend = HALVO_BIN "/halvo-send", kRecv = HALVO_BIN "/halvo-recv",
                  kRelay = HALVO_BIN "/halvo-relay";
const std::vector<std::vector<std::string>> kPrograms = {
    {kMonitor},        {kMonitor, "check"}, {kSend, "MT01"},
    {kRecv, "MT01"},   {kManager, "check"}, {kManager, "check", "--repair"},
    {kManager, "list"}};

class Operators : public testing::Test {
protected:
    Operators() {
        setenv("LC_ALL", "C.UTF-8", 1);
        chmod(segment.path("").c_str(), 0755);
    }
    Outcome run(std::vector<std::string> words, bool as_other_user = false) const {
        if (words[0] != kRelay) words.insert(words.end(), {"-k", segment.key_file()});
        if (as_other_user)
            words.insert(words.begin(),
                         {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        return run_program(words);
    }
    std::string file(const std::string &name, const std::string &content) const {
        const std::string path = segment.path(name);
        write_file(path, content);
        return path;
    }
    Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
};

} // namespace

TEST_F(Operators, are_told_the_true_cause_of_a_failed_attach) {
    auto programs = kPrograms;
    if (access(kRelay.c_str(), X_OK) == 0) { // it is built where its library is there
        const std::string config =
            file("relay", "[relay]\nkey = '" + segment.key_file() +
                              "'\nstate = '/'\n[broker]\nurl = 'amqp://h'\n[[route]]\n"
                              "name = 'r'\nfrom = 'channel:MT01'\nto = 'amqp:q'\n");
        programs.push_back({kRelay, "check", config});
        expect_end(run_program({"/bin/sh", "-c", kRelay + " check " + config + " >/dev/full"}), 1,
                   "No space left");
    }
    const auto all_say = [&](const std::string &cause, bool as_other_user = false) {
        for (const auto &program : programs) {
            const Outcome outcome = run(program, as_other_user);
            const std::string said = outcome.out + outcome.err;
            EXPECT_NE(outcome.status, 0) << program[0];
            EXPECT_NE(said.find(cause), std::string::npos) << program[0] << ": " << said;
            EXPECT_EQ(said.find("ESMS_"), std::string::npos) << said;
        }
    };
    if (getuid() == 0) all_say("ermission denied", true);
    shmctl(segment_under(segment.key_file()), IPC_RMID, nullptr);
    all_say("no segment");
    halvo::qm::remove(segment.key_file());
    all_say("o such "); // no such key file, No such file
}

TEST_F(Operators, may_look_at_what_they_may_not_write) {
    if (getuid() != 0) GTEST_SKIP() << "needs another user";
    const std::string config =
        file("toml", "channel = [{name = 'MT01', slots = 4, slot_size = 64}]");
    const auto make = [&](const std::string &group) {
        return run({kManager, "create", config, "--replace", "--mode", "0640", "--group", group});
    };
    expect_end(make("nogroup"), 0);
    for (const char *view :
         {"table", "plain", "xml", "json", "clients", "log", "prometheus", "check"})
        expect_end(run({kMonitor, view, "--sample", "0"}, true), 0);
    expect_end(run({kMonitor, "check", "--held", "reader"}, true), 2);
    expect_end(run({kManager, "list"}, true), 0);
    expect_end(run({kSend, "MT01"}, true), 2, "may not be written");
    expect_end(make("nobody-knows"), 2);
}

TEST_F(Operators, see_and_type_korean_names) {
    const std::string korea = utf8("한국"), names = file("options", korea + " 1\n!MSG 1\n!TITEL\n");
    const std::string config =
        file("toml", "channel = [{name = '" + korea +
                         "', slots = 4, slot_size = 64}]\n[types]\n1 = '" + utf8("제출") + "'");
    ASSERT_EQ(run({kManager, "create", config, "--replace"}).status, 0);
    const auto says = [&](std::vector<std::string> words, const std::string &text) {
        const Outcome outcome = run(words);
        expect_end(outcome, 0, text);
        return outcome.err;
    };
    const std::string message = file("message", "one\n");
    says({kSend, korea, message, "--name", utf8("보냄")}, "");
    says({kManager, "list"}, korea + "  M     4      64         1        ");
    says({kManager, "list"}, utf8("보냄"));
    says({kMonitor, "table", "--sample", "0"}, "\n" + korea + "  ");
    says({kMonitor, "types", utf8("제출"), "--sample", "0"}, "M ");
    says({kMonitor, "types", "--sample", "0"}, utf8("제출"));
    says({kMonitor, "check", "--channel", korea, "--warning", "1"}, korea + " backlog'=1;1");
    EXPECT_EQ(says({kMonitor, "--options", names, "--sample", "0"}, "\n" + korea),
              "halvo-mon: " + names + ":3: no channel named !TITEL\n");
    says({kRecv, korea, "--count", "1"}, "one\n");
    says({kManager, "check"}, "");
    // What EUC-KR cannot express is refused, with its line.
    const std::string bad =
        file("bad", "\nchannel = [{name = '\xF0\x9F\x98\x80', slots = 4, slot_size = 64}]");
    expect_end(run({kManager, "create", bad, "--replace"}), 2, "bad:2: name");
}
