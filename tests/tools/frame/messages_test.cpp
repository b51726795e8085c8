// halvo-send and halvo-recv, as an operator runs them.
#include "tests/support/program.h"
#include "tests/support/ring.h"

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
    expect_end(sent, 0, "1 empty lines skipped");
    expect_end(sent, 0, "halvo-send: 3 messages, 11 bytes in ");
    EXPECT_EQ(sent.out, "") << "the library's own lines go to standard error";
    segment.attach();
    EXPECT_EQ(q_pcount_per_type(segment.channel("MT01"), 7), 3);
    EXPECT_EQ(recv({"--idle", "100"}).out, "one\ntwo\nthree\n");
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

TEST_F(Messages, a_batch_goes_around_what_another_writer_parked) {
    segment.attach();
    halvo_channel *q = segment.channel("MT01");
    ASSERT_EQ(q_write_buf(q, 1, "parked", 6, 2), ESMS_OK);
    expect_end(send({"--batch", "3"}, "1\n2\n3\n4\n5\n"), 0, "5 messages");
    ASSERT_EQ(q_write_buf_commit(q, 2), ESMS_OK);
    EXPECT_EQ(recv({"--idle", "50"}).out, "1\n2\n3\n4\n5\nparked\n");
}

TEST_F(Messages, a_receiver_that_gets_no_end_leaves_the_output_of_the_one_that_has_it) {
    const std::string file = segment.path("got");
    EXPECT_EQ(send({}, "one\ntwo\n").status, 0);
    Peer first([&] { return recv({"--count", "3", "-o", file}).status; });
    const auto got = [&] { return run_program({"/bin/cat", file}).out; };
    EXPECT_TRUE(comes_true([&] { return got() == "one\ntwo\n"; }));
    const Outcome second = recv({"--timeout", "100", "-o", file});
    expect_end(second, 1, "last holder is process ");
    EXPECT_EQ(second.err.find("INIT"), std::string::npos) << "what every start says is no news";
    expect_end(run_program({"/usr/bin/timeout", "--preserve-status", "0.3", kRecv, "-k",
                            segment.key_file(), "MT01"}),
               128 + SIGTERM, "halvo-recv: stopped by a signal");
    EXPECT_EQ(send({}, "three\n").status, 0);
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(got(), "one\ntwo\nthree\n");
}

TEST_F(Messages, what_cannot_be_sent_is_named_and_what_stood_before_is_sent) {
    const std::string text = "fits\nfits too\n" + std::string(49, 'x') + "\nnever reached\n";
    for (const char *batch : {"1", "10"}) {
        expect_end(send({"-b", batch}, text), 1, "halvo-send: line 3: ESMS_EXEED");
        EXPECT_EQ(recv({"--idle", "50"}).out, "fits\nfits too\n");
    }
    const Outcome full = send({"--timeout", "200"}, "1\n2\n3\n4\n5\n6\n7\n8\n9\n");
    expect_end(full, 1, "line 9: ESMS_TIMEOUT");
    expect_end(full, 1, "8 messages");
}

TEST_F(Messages, what_could_not_be_written_out_is_received_again) {
    EXPECT_EQ(send({}, "one\ntwo\n").status, 0);
    expect_end(recv({"--count", "2", "-o", "/dev/full"}), 1, "/dev/full: No space left");
    const auto closed = [&](const std::string &descriptors) {
        return run_program(
            {"/bin/sh", "-c",
             "exec " + kRecv + " --key " + segment.key_file() + " MT01 --count 2 " + descriptors});
    };
    expect_end(closed(">&-"), 1, "standard output: Bad file descriptor");
    expect_end(closed(">/dev/full"), 1, "standard output: No space left");
    EXPECT_EQ(closed("2>&-").out, "one\ntwo\n") << "no summary among the messages";
}

TEST_F(Messages, a_signal_ends_both_cleanly) {
    segment.attach();
    // Whether somebody holds an end, and waits there.
    const auto status_after = [&](const std::string &program, int number, bool writer) {
        Peer peer([&] {
            const ScratchFile input;
            input.fill("x\n");
            return become({program, "--key", segment.key_file(), "MT01"}, input.fd(), 1,
                          input.fd());
        });
        EXPECT_TRUE(comes_true([&] {
            const halvo_channel *q = segment.channel("MT01");
            return (writer ? q->wwait : q->rwait) > 0;
        }));
        peer.kill(number);
        return peer.wait();
    };
    // A receiver ends well; a sender that has something left to send tells what ended it.
    EXPECT_EQ(status_after(kRecv, SIGINT, false), 0);
    EXPECT_EQ(status_after(kRecv, SIGTERM, false), 0);
    ASSERT_NE(segment.open("MT01", 'r'), nullptr) << "the end is free again";
    for (int i = 0; i < 8; ++i) write(segment.channel("MT01"), "full");
    EXPECT_EQ(status_after(kSend, SIGTERM, true), 128 + SIGTERM);
}

TEST_F(Messages, wrong_words_and_missing_things_end_with_2) {
    expect_end(run_program({kSend, "MT01"}), 2);
    expect_end(send({"--type", "70000"}, ""), 2);
    expect_end(recv({"--count", "-1"}), 2, "halvo-recv: --count: \"-1\" is no whole number");
    expect_end(run_program({kSend, "--tpye", "7"}), 2, "not expected here: --tpye");
    expect_end(send({"/nonexistent/file"}, ""), 2);
    expect_end(run_program({kRecv, "--key", segment.key_file(), "XX99"}), 2,
               "XX99: no channel of that name");
    expect_end(run_program({kRecv, "--key", "/nonexistent", "MT01"}), 2, "halvo-qm create");
}
