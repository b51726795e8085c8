// What operators meet in all programs alike: causes of failures, rights, and Korean names.
#include <sys/shm.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tests/print/scenario.h"
#include "tests/support/program.h"

using namespace halvo::test;

namespace {

const std::vector<std::vector<std::string>> kPrograms = {
    {HALVO_MON},          {HALVO_MON, "check"}, {HALVO_SEND, "MT01"},
    {HALVO_RECV, "MT01"}, {HALVO_QM, "check"},  {HALVO_QM, "check", "--repair"},
    {HALVO_QM, "list"}};

class Operators : public testing::Test {
protected:
    Operators() {
        setenv("LC_ALL", "C.UTF-8", 1);
        chmod(segment.path("").c_str(), 0755);
    }
    Outcome run(std::vector<std::string> words, bool as_other_user = false) const {
        words.insert(words.end(), {"-k", segment.key_file()});
        if (as_other_user)
            words.insert(words.begin(),
                         {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        return run_program(words);
    }
    std::string file(const std::string &name, const std::string &content) const {
        const std::string path = segment.path(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
};

} // namespace

TEST_F(Operators, are_told_the_true_cause_of_a_failed_attach) {
    const auto all_say = [&](const std::string &cause, bool as_other_user, size_t from) {
        for (size_t i = from; i < kPrograms.size(); ++i) {
            const Outcome outcome = run(kPrograms[i], as_other_user);
            const std::string said = outcome.out + outcome.err;
            EXPECT_NE(outcome.status, 0) << kPrograms[i][0];
            EXPECT_NE(said.find(cause), std::string::npos) << kPrograms[i][0] << ": " << said;
            EXPECT_EQ(said.find("ESMS_"), std::string::npos) << said;
        }
    };
    if (getuid() == 0) all_say("ermission denied", true, 0);
    shmctl(shmget(ftok(segment.key_file().c_str(), 1), 0, 0), IPC_RMID, nullptr);
    all_say("no segment", false, 0);
    halvo::qm::remove(segment.key_file());
    all_say("o such ", false, 0); // no such key file, No such file
}

TEST_F(Operators, may_look_at_what_they_may_not_write) {
    if (getuid() != 0) GTEST_SKIP() << "needs another user";
    const std::string config =
        file("toml", "channel = [{name = 'MT01', slots = 4, slot_size = 64}]");
    ASSERT_EQ(run({HALVO_QM, "create", config, "--replace", "--mode", "0640", "--group", "nogroup"})
                  .status,
              0);
    for (const char *view :
         {"table", "plain", "xml", "json", "clients", "log", "prometheus", "check"}) {
        const Outcome outcome = run({HALVO_MON, view, "--sample", "0"}, true);
        EXPECT_EQ(outcome.status, 0) << view << ": " << outcome.err;
    }
    EXPECT_EQ(run({HALVO_MON, "check", "--held", "reader"}, true).status, 2);
    EXPECT_EQ(run({HALVO_QM, "list"}, true).status, 0);
    const Outcome writer = run({HALVO_SEND, "MT01"}, true);
    EXPECT_EQ(writer.status, 2);
    EXPECT_NE(writer.err.find("may not be written"), std::string::npos) << writer.err;
    EXPECT_EQ(run({HALVO_QM, "create", config, "--replace", "--group", "nobody-knows"}).status, 2);
}

TEST_F(Operators, see_and_type_korean_names) {
    const std::string korea = utf8("한국"), names = file("options", korea + " 1\nMTO1\n");
    const std::string config =
        file("toml", "channel = [{name = '" + korea +
                         "', slots = 4, slot_size = 64}]\n[types]\n1 = '" + utf8("제출") + "'");
    ASSERT_EQ(run({HALVO_QM, "create", config, "--replace"}).status, 0);
    const auto says = [&](std::vector<std::string> words, const std::string &text) {
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_NE(outcome.out.find(text), std::string::npos) << words[1] << ": " << outcome.out;
        return outcome;
    };
    const std::string message = file("message", "one\n");
    says({HALVO_SEND, korea, message, "--name", utf8("보냄")}, "");
    says({HALVO_QM, "list"}, korea + "  M     4      64         1        ");
    says({HALVO_QM, "list"}, utf8("보냄"));
    says({HALVO_MON, "table", "--sample", "0"}, "\n" + korea + "  ");
    says({HALVO_MON, "types", utf8("제출"), "--sample", "0"}, "M ");
    says({HALVO_MON, "types", "--sample", "0"}, utf8("제출"));
    says({HALVO_MON, "check", "--channel", korea, "--warning", "1"}, korea + " backlog'=1;1");
    const Outcome outcome = says({HALVO_MON, "--options", names, "--sample", "0"}, "\n" + korea);
    EXPECT_EQ(outcome.err, "halvo-mon: " + names + ":2: no channel named MTO1\n");
    says({HALVO_RECV, korea, "--count", "1"}, "one\n");
    EXPECT_EQ(run({HALVO_QM, "check"}).status, 0);
    // What EUC-KR cannot express is refused, with its line.
    const Outcome refused =
        run({HALVO_QM, "create",
             file("bad", "\nchannel = [{name = '\xF0\x9F\x98\x80', slots = 4, slot_size = 64}]"),
             "--replace"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("bad:2: name"), std::string::npos) << refused.err;
}
