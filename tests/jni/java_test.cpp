// Runs the Java tests in real VMs, each over a segment of its own, and judges how the VMs end.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "halvo/frx.h"
#include "tests/jni/vm.h"

using namespace halvo::test;

namespace {

constexpr char kPackage[] = "com.morvesk.halvo.ipc.";
constexpr int kEchoes = 20000; // as many as ExchangeTest sends

constexpr int kChannelsM = 90;
constexpr int kChannelsF = 20;

Segment test_segment() {
    SegmentBuilder builder;
    const auto add = [&](char type, int count) {
        for (int i = 0; i < count; ++i) {
            char name[16];
            std::snprintf(name, sizeof name, "%c%02d", type, i);
            builder.channel(name, type, 4, 64);
        }
    };
    add('M', kChannelsM);
    add('F', kChannelsF);
    return builder.build();
}

// The tests run in every VM of the library's width that is there.
class Vm : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        java_ = find_java(GetParam(), 8 * sizeof(void *));
        if (java_.empty())
            GTEST_SKIP() << "no JDK " << GetParam() << " of " << 8 * sizeof(void *)
                         << " bits under /usr/lib/jvm: not tested with it";
    }
    static bool restricts_native_access() { return GetParam() >= 24; }

    Outcome junit(const Segment &s, Words options, const Words &classes) const {
        options.push_back("-Dhalvoipc.library=" HALVO_LIBRARY);
        if (restricts_native_access()) options.push_back("--enable-native-access=ALL-UNNAMED");
        Words command{"org.junit.runner.JUnitCore"};
        for (const std::string &name : classes) command.push_back(kPackage + name);
        return run_vm(s, options, command, java_);
    }
    void run(const std::string &name) const { expect_ok(junit(test_segment(), {}, {name})); }
    static void expect_ok(const Outcome &outcome);

    std::string java_;
};

std::string name_of(const testing::TestParamInfo<int> &version) {
    return "on" + std::to_string(version.param);
}
#ifdef __i386__ // for which there is no later one
INSTANTIATE_TEST_SUITE_P(jni, Vm, testing::Values(17), name_of);
#else
INSTANTIATE_TEST_SUITE_P(jni, Vm, testing::Values(17, 25), name_of);
#endif

// The VM ended by itself, every test ran, and none failed.
void Vm::expect_ok(const Outcome &outcome) {
    EXPECT_EQ(outcome.status, 0);
    std::smatch result;
    if (std::regex_search(outcome.out, result, std::regex("\nOK \\([0-9]+ tests?\\)\n")))
        std::printf("%s", result.str().c_str() + 1);
    else
        ADD_FAILURE() << outcome.out;
}

std::string content(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

TEST_P(Vm, BindingTest) { run("BindingTest"); }
TEST_P(Vm, UnattachedTest) { run("UnattachedTest"); }
TEST_P(Vm, BlockingTest) { run("BlockingTest"); }

TEST_P(Vm, WaitsTest) {
    expect_ok(junit(test_segment(),
                    {"-Djdk.virtualThreadScheduler.parallelism=1",
                     "-Djdk.virtualThreadScheduler.maxPoolSize=1"},
                    {"WaitsTest"}));
}

TEST_P(Vm, AttachTest) {
    const Segment other = SegmentBuilder().channel("other", 'M', 4, 64).build();
    expect_ok(junit(test_segment(), {"-Dhalvo.test.other=" + other.key_file()}, {"AttachTest"}));
}

// The VM's own check of every call that a native makes. The remaining classes run under it alone.
TEST_P(Vm, CheckedCalls) {
    const Segment s = test_segment();
    const Outcome outcome =
        junit(s, {"-Xcheck:jni"},
              {"LifecycleTest", "TransferTest", "TransactionsTest", "CountersTest", "LiveStatTest",
               "BlockingTest", "FileQueueTest", "CompanionTest"});
    expect_ok(outcome);
    // What the VM has to say of the calls; that the library handles SIGUSR2 it says once.
    std::istringstream lines(outcome.out);
    const std::regex warning("(WARNING|FATAL ERROR) in native method|Warning: (?!SIGUSR2 )");
    for (std::string line; std::getline(lines, line);)
        EXPECT_FALSE(std::regex_search(line, warning)) << line;
}

TEST_P(Vm, ExchangeTest) {
    const Segment s = SegmentBuilder()
                          .channel("toC", 'M', 4, 64)
                          .channel("fromC", 'M', 4, 64)
                          .channel("toJava", 'M', 4, 64)
                          .channel("fromJava", 'M', 4, 64)
                          .build();
    Peer echo([&] {
        FrxChannel in;
        FrxChannel out;
        if (frx_initialize(s.key_file().c_str()) != ESMS_OK) return 1;
        if (frx_openChannel(&in, "echo", s.number("toC"), 'r', 1000) != ESMS_OK) return 2;
        if (frx_openChannel(&out, "echo", s.number("fromC"), 'w', 1000) != ESMS_OK) return 3;
        alignas(qmsg) char slot[64];
        for (int i = 0; i < kEchoes; ++i) {
            const int length = frx_read(&in, slot, 30000);
            if (length < 1) return 4;
            const char *body = slot + offsetof(qmsg, data);
            if (frx_write(&out, 1, body, static_cast<uint32_t>(length), 30000) != ESMS_OK) return 5;
        }
        return 0;
    });
    expect_ok(junit(s, {}, {"ExchangeTest"}));
    EXPECT_EQ(echo.wait(), 0);
}

// The example of the documents, with the library found by the VM's own search.
TEST(jni, Hello) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    const Outcome outcome = run_vm(s, {"-Djava.library.path=" HALVO_LIBRARY_DIRECTORY},
                                   {"Hello", s.key_file(), "MT01"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("7: Hello, gateway\n"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("SHM_INIT_FINISHED.\n"), std::string::npos)
        << "what the library prints comes out at the end of the VM\n"
        << outcome.out;
}

// A VM at another path than the one that the library was built with: its own libjsig.so serves.
TEST_P(Vm, OfAnotherPath) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    std::string library = content(HALVO_LIBRARY);
    const std::string place = std::filesystem::path(HALVO_JAVA).parent_path().parent_path();
    for (size_t at = 0; (at = library.find(place, at)) != std::string::npos; ++at)
        library[at + place.size() - 1] = '_';
    std::ofstream(s.path("libhalvoipc.so"), std::ios::binary) << library;
    const Outcome outcome = run_vm(s, {"-Dhalvoipc.library=" + s.path("libhalvoipc.so")},
                                   {"Hello", s.key_file(), "MT01"}, java_);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("7: Hello, gateway\n"), std::string::npos) << outcome.out;
}

TEST_P(Vm, ThatRefusesNativeCodeTellsHowToAllowIt) {
    if (!restricts_native_access()) GTEST_SKIP() << "this VM restricts nothing";
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    const Outcome outcome =
        run_vm(s, {"--illegal-native-access=deny", "-Dhalvoipc.library=" HALVO_LIBRARY},
               {"Hello", s.key_file(), "MT01"}, java_);
    EXPECT_NE(outcome.status, 0);
    EXPECT_NE(outcome.out.find("start java with --enable-native-access=ALL-UNNAMED"),
              std::string::npos)
        << outcome.out;
}

TEST(jni, ExamplesPassAFile) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
    std::string lines;
    for (int i = 0; i < 2000; ++i) lines += "line " + std::to_string(i) + " \xc7\xd1\xb1\xdb\n";
    std::ofstream(s.path("sent"), std::ios::binary) << lines;
    Peer sender([&] {
        const Outcome sent = run_vm(s, {"-Dhalvoipc.library=" HALVO_LIBRARY},
                                    {"SendLines", s.key_file(), "MT01", s.path("sent")});
        EXPECT_EQ(sent.status, 0) << sent.out;
        return 0;
    });
    const Outcome got = run_vm(s, {"-Dhalvoipc.library=" HALVO_LIBRARY},
                               {"ReceiveLines", s.key_file(), "MT01", s.path("got"), "2000"});
    EXPECT_EQ(got.status, 0) << got.out;
    EXPECT_EQ(sender.wait(), 0);
    EXPECT_EQ(content(s.path("got")), lines);
}
