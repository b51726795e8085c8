// halvo-send and halvo-recv, as an operator runs them.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/program.h"
#include "tests/support/ring.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

const std::string kSend = HALVO_BIN "/halvo-send";
const std::string kRecv = HALVO_BIN "/halvo-recv";

class Messages : public testing::Test {
protected:
    Segment segment = SegmentBuilder().channel("MT01", 'M', 8, 64).build();

    Outcome send(std::vector<std::string> words, const std::string &input) {
        words.insert(words.begin(), {kSend, "--key", segment.key_file(), "MT01"});
        return run_program(words, input);
    }
    Outcome recv(std::vector<std::string> words) {
        words.insert(words.begin(), {kRecv, "--key", segment.key_file(), "MT01"});
        return run_program(words);
    }
};

} // namespace

TEST_F(Messages, lines_become_messages_and_lines_again) {
    const Outcome sent = send({"--type", "7"}, "one\n\ntwo\nthree");
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.out, "") << "the library's own lines go to standard error";
    EXPECT_NE(sent.err.find("1 empty lines skipped"), std::string::npos);
    EXPECT_NE(sent.err.find("halvo-send: 3 messages, 11 bytes in "), std::string::npos) << sent.err;
    segment.attach();
    EXPECT_EQ(q_pcount_per_type(segment.channel("MT01"), 7), 3);
    const Outcome got = recv({"--idle", "100"});
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, "one\ntwo\nthree\n");
}

TEST_F(Messages, every_byte_comes_back_with_keep_newline) {
    std::string text = "first\n\n\x01\xB0\xA1 bytes\n";
    text += std::string("a\0b\n", 4) + "no line feed at the end";
    const std::string file = segment.path("got");
    EXPECT_EQ(send({"-n", "--batch", "3", "-q"}, text).status, 0);
    EXPECT_EQ(recv({"-n", "--count", "2", "-q"}).out, "first\n\n");
    EXPECT_EQ(recv({"-n", "--count", "3", "-o", file}).status, 0);
    EXPECT_EQ(run_program({"/bin/cat", file}).out, text.substr(7));
}

TEST_F(Messages, a_batch_larger_than_the_ring_goes_in_parts) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += std::to_string(i) + "\n";
    Peer receiver([&] { return recv({"--count", "100", "--batch", "5"}).out == text ? 0 : 1; });
    EXPECT_EQ(send({"--batch", "1000"}, text).status, 0);
    EXPECT_EQ(receiver.wait(), 0);
}

TEST_F(Messages, what_cannot_be_sent_is_named_and_what_stood_before_is_sent) {
    const std::string text = "fits\nfits too\n" + std::string(49, 'x') + "\nnever reached\n";
    for (const char *batch : {"1", "10"}) {
        const Outcome outcome = send({"-b", batch}, text);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_NE(outcome.err.find("halvo-send: line 3: ESMS_EXEED"), std::string::npos)
            << outcome.err;
        EXPECT_EQ(recv({"--idle", "50"}).out, "fits\nfits too\n");
    }
    const Outcome full = send({"--timeout", "200"}, "1\n2\n3\n4\n5\n6\n7\n8\n9\n");
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("line 9: ESMS_TIMEOUT"), std::string::npos) << full.err;
    EXPECT_NE(full.err.find("8 messages"), std::string::npos) << full.err;
}

TEST_F(Messages, what_could_not_be_written_out_is_received_again) {
    EXPECT_EQ(send({}, "one\ntwo\n").status, 0);
    const Outcome full_disk = recv({"--count", "2", "-o", "/dev/full"});
    EXPECT_EQ(full_disk.status, 1);
    EXPECT_NE(full_disk.err.find("/dev/full: No space left"), std::string::npos) << full_disk.err;
    EXPECT_EQ(recv({"--count", "2"}).out, "one\ntwo\n");
}

TEST_F(Messages, a_signal_ends_both_cleanly) {
    for (const int number : {SIGINT, SIGTERM}) {
        Peer receiver([&] {
            execl(kRecv.c_str(), "halvo-recv", "--key", segment.key_file().c_str(), "MT01",
                  nullptr);
            return 127;
        });
        usleep(200000);
        receiver.kill(number);
        EXPECT_EQ(receiver.wait(), 0);
    }
    segment.attach();
    ASSERT_NE(segment.open("MT01", 'r'), nullptr) << "the end is free again";
    for (int i = 0; i < 8; ++i) write(segment.channel("MT01"), "full");
    Peer sender([&] {
        execl("/bin/sh", "sh", "-c",
              ("echo x | exec " + kSend + " --key " + segment.key_file() + " MT01 2>/dev/null")
                  .c_str(),
              nullptr);
        return 127;
    });
    usleep(200000);
    ASSERT_EQ(run_program({"/usr/bin/pkill", "-TERM", "-P", std::to_string(sender.pid())}).status,
              0);
    EXPECT_EQ(sender.wait(), 128 + SIGTERM);
}

TEST_F(Messages, wrong_words_and_missing_things_end_with_2) {
    EXPECT_EQ(run_program({kSend, "MT01"}).status, 2);
    EXPECT_EQ(run_program({kRecv, "--help"}).status, 0);
    EXPECT_EQ(send({"--type", "70000"}, "").status, 2);
    EXPECT_EQ(send({"/nonexistent/file"}, "").status, 2);
    const Outcome no_channel = run_program({kRecv, "--key", segment.key_file(), "XX99"});
    EXPECT_EQ(no_channel.status, 2);
    EXPECT_NE(no_channel.err.find("XX99: no channel of that name"), std::string::npos);
    const Outcome no_segment = run_program({kRecv, "--key", "/nonexistent", "MT01"});
    EXPECT_EQ(no_segment.status, 2);
    EXPECT_NE(no_segment.err.find("halvo-qm create"), std::string::npos) << no_segment.err;
}
