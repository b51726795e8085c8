// What the printers' tests look at: three channels with figures that can be checked by hand, at a
// fixed time. Texts are compared as they are printed, in EUC-KR, which literals are too.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "halvo/status.h"
#include "tests/support/capture.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {

constexpr int32_t kNow = 1700100000; // 2023-11-16 02:00:00 UTC

// A text in EUC-KR as UTF-8.
std::string utf8(const std::string &text);
// The text of a file in tests/print/expected: there in UTF-8 and with ␛ for the escape character.
std::string expected(const std::string &file);
// The lines of a text, without their newlines.
std::vector<std::string> lines(const std::string &text);
// What a command of the shell prints; its exit status is expected to be 0.
std::string output_of(const std::string &command);

class Status : public testing::Test {
protected:
    Status();
    ~Status() override;

    // Memory for the globals that a monitoring program sets.
    void provide_baseline(); // every channel: 500 messages counted, two seconds ago
    void take_snapshot(int32_t at);
    void take_snapshot_of_before(); // two hours ago, with counts to compare
    std::string write_file(const std::string &name, const std::string &content);
    static std::string xml(char mode) { return document(q_statprint_xml, mode); }
    static std::string json(char mode = 'a') { return document(q_statprint_json, mode); }

    Segment segment;
    halvo_channel *mt = nullptr;    // 0 MT01, type M, active
    halvo_channel *xcn = nullptr;   // 1 XCN1, type F, its file-queue writer active, throttled
    halvo_channel *korea = nullptr; // 2 한국, of a third type, idle; counts XCN1's replies

private:
    static std::string document(int (*print)(char, char *), char mode);

    std::vector<halvo_counter> baseline_;
    std::vector<char> image_;
};

} // namespace halvo::test
