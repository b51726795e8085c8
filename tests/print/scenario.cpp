#include "tests/print/scenario.h"

#include <cstdlib>
#include <ctime>

#include "core/segment/ring.h"
#include "tests/support/files.h"
#include "tests/support/fixed_clock.h"
#include "tests/support/program.h"
#include "tools/frame/charset.h"

namespace halvo::test {

std::string utf8(const std::string &text) { return tools::to_utf8(text); }

std::string expected(const std::string &file) {
    std::string text = content_of(HALVO_EXPECTED "/" + file);
    const std::string escape = "\xE2\x90\x9B"; // U+241B in UTF-8
    for (size_t at; (at = text.find(escape)) != std::string::npos;)
        text.replace(at, escape.size(), "\x1b");
    return tools::to_euc_kr(text).value();
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) all.push_back(line);
    return all;
}

std::string output_of(const std::string &command) {
    const Outcome outcome = run_program({"/bin/sh", "-c", command});
    EXPECT_EQ(outcome.status, 0) << command << '\n' << outcome.err;
    return outcome.out;
}

Status::Status()
    : segment(SegmentBuilder()
                  .channel("MT01", 'M', 100, 4096)
                  .channel("XCN1", 'F', 4, 256, 50)
                  .channel("한국", 'D', 8, 1000)
                  .type_name(5, "submit")
                  .type_name(6, "report")
                  .type_name(7, "submit2")
                  .build()) {
    setenv("TZ", "UTC0", 1);
    tzset();
    unsetenv("HALVO_HOST_TYPE");
    set_clock(kNow);
    segment.attach();
    q_0()->uptime = kNow - 3 * 86400 - 5;
    mt = segment.channel("MT01");
    mt->pcnt.count = mt->tcnt[0].count = 1000;
    mt->gcnt.count = 998;
    mt->gcnt.ecount = 3;
    mt->tcnt[0].ratio = 1;
    mt->wtime = kNow - 2;
    mt->rtime = kNow - 3;
    mt->lastin = kNow - 75;
    mt->lastout = kNow - 2;
    mt->pidp = 4101;
    mt->pidg = 4102;
    slot_at(mt, mt->rpos)->state = HALVO_SLOT_READABLE;
    mt->wpos += 2 * mt->qbsz;
    xcn = segment.channel("XCN1");
    xcn->fpcnt.count = 8000;
    xcn->fgcnt.count = 7500;
    xcn->pcnt.count = xcn->gcnt.count = 7400;
    xcn->tcnt[0].ratio = 2;
    xcn->throttled = 1;
    xcn->throttletime = kNow;
    xcn->fwtime = kNow - 10;
    xcn->frtime = kNow - 11;
    xcn->lastin = kNow - 90000;
    xcn->pidpf = 5101;
    xcn->pidgf = 5102;
    xcn->ackq = 2;
    xcn->acktype = 5;
    xcn->rslttype = 6;
    korea = segment.channel("한국");
    korea->pcnt.count = korea->gcnt.count = korea->tcnt[0].count = 60;
    korea->fpcnt.count = 5;
    korea->fgcnt.count = 2;
    korea->tcnt[5].count = 40;
    korea->tcnt[5].ecount = 30;
    korea->tcnt[6].count = korea->tcnt[6].ecount = 20;
    korea->wtime = korea->rtime = kNow - 6;
    korea->lastin = kNow - 7;
    korea->lastout = kNow - 8;
    korea->pidp = 6101;
    korea->pidg = 6102;
}

Status::~Status() {
    lastcheck = nullptr;
    snapshot = nullptr;
    std::free(qprtopts);
    qprtopts = qoptTitle = qoptMsg = qoptHeader = nullptr;
}

void Status::provide_baseline() {
    baseline_.assign(q_0()->nchnnl, halvo_counter{});
    for (halvo_counter &last : baseline_) {
        last.count = 500;
        last.tstart = q_day_millis() - 2000;
    }
    lastcheck = baseline_.data();
}

void Status::take_snapshot(int32_t at) {
    image_.resize(sizeof(halvo_segment) + q_0()->nchnnl * sizeof(halvo_channel));
    snapshot = image_.data();
    EXPECT_EQ(q_snapshot(snapshot, static_cast<int>(image_.size())), 0);
    static_cast<halvo_segment *>(snapshot)->now = at;
}

void Status::take_snapshot_of_before() {
    take_snapshot(kNow - 125 * 60 - 30);
    auto *image = reinterpret_cast<halvo_channel *>(image_.data() + sizeof(halvo_segment));
    image[0].gcnt.count = 900;
    image[0].gcnt.ecount = 1;
    image[1].fgcnt.count = 7000;
    image[1].gcnt.count = 7399;
    image[2].tcnt[5].count = image[2].tcnt[5].ecount = 10;
    image[2].tcnt[6].count = image[2].tcnt[6].ecount = 0;
}

std::string Status::write_file(const std::string &name, const std::string &content) {
    const std::string path = segment.path(name);
    test::write_file(path, content);
    return path;
}

std::string Status::document(int (*print)(char, char *), char mode) {
    std::vector<char> out(128 + 1024 * q_0()->nchnnl);
    EXPECT_EQ(print(mode, out.data()), 0);
    return out.data();
}

} // namespace halvo::test
