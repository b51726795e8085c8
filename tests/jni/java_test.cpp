// Runs the Java tests in real VMs, each over a segment of its own, and judges how the VMs end.
#include <dlfcn.h>
#include <elf.h>

#include <regex>

#include "tests/jni/vm.h"

using namespace halvo::test;

namespace {

Segment test_segment() {
    constexpr int kM = 90, kF = 20;
    SegmentBuilder builder;
    for (int i = 0; i < kM + kF; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%c%02d", i < kM ? 'M' : 'F', i % kM);
        builder.channel(name, name[0], 4, 64);
    }
    return builder.build();
}

constexpr char kOk[] = "\nOK ("; // so many tests, of which none failed
constexpr int kWidth = 8 * sizeof(void *);

// The tests run in every VM of the library's width that is there.
class Vm : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (java_.empty())
            GTEST_SKIP() << "no JDK " << GetParam() << " of " << kWidth
                         << " bits under /usr/lib/jvm: not tested with it";
    }
    static bool restricts_native_access() { return GetParam() >= 24; }

    Outcome junit(const Segment &s, Words options, const Words &classes) const {
        options.push_back(kLibrary);
        if (restricts_native_access()) options.push_back("--enable-native-access=ALL-UNNAMED");
        Words command{"org.junit.runner.JUnitCore"};
        for (const std::string &name : classes) command.push_back("com.morvesk.halvo.ipc." + name);
        return run_vm(s, options, command, java_);
    }
    Outcome hello(const Words &options) const {
        return run_vm(one_, options, {"Hello", one_.key_file(), "MT01"}, java_);
    }

    const Segment one_ = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
    const std::string java_ = find_java(GetParam(), kWidth);
};
// For i386 there is no later one.
INSTANTIATE_TEST_SUITE_P(jni, Vm,
                         testing::ValuesIn(kWidth == 32 ? std::vector{17} : std::vector{17, 25}),
                         testing::PrintToStringParamName());

} // namespace

TEST_P(Vm, Unattached) { expect_end(junit(test_segment(), {}, {"UnattachedTest"}), 0, kOk); }

// The first class attaches, late.
TEST_P(Vm, Waits) {
    const Segment s = test_segment();
    const Segment unfinished = SegmentBuilder().channel("one", 'M', 4, 64).build();
    Peer([&] {
        unfinished.attach();
        return static_cast<int>(q_0()->nchnnl = 0); // they are counted last
    }).wait();
    expect_end(junit(s,
                     {"-Dhalvo.test.other=" + one_.key_file(),
                      "-Dhalvo.test.unfinished=" + unfinished.key_file(),
                      "-Djdk.virtualThreadScheduler.parallelism=1",
                      "-Djdk.virtualThreadScheduler.maxPoolSize=1"},
                     {"AttachTest", "WaitsTest"}),
               0, kOk);
}

// The VM's own check of every call that a native makes. The remaining classes run under it alone.
TEST_P(Vm, CheckedCalls) {
    const Outcome outcome = junit(test_segment(), {"-Xcheck:jni"},
                                  {"LifecycleTest", "NativesTest", "LiveStatTest", "BlockingTest",
                                   "FileQueueTest", "CompanionTest"});
    expect_end(outcome, 0, kOk);
    // What the VM has to say of the calls; that the library handles SIGUSR2 it says once.
    std::smatch said;
    EXPECT_FALSE(std::regex_search(
        outcome.out, said,
        std::regex("((WARNING|FATAL ERROR) in native method|Warning: (?!SIGUSR2 )).*")))
        << said.str();
}

// A VM at another path than the one that the library was built with: its own libjsig.so serves.
TEST_P(Vm, OfAnotherPath) {
    std::string library = content_of(HALVO_LIBRARY);
    const std::string place = std::filesystem::path(HALVO_JAVA).parent_path().parent_path();
    for (size_t at = 0; (at = library.find(place, at)) != std::string::npos; ++at)
        library[at + place.size() - 1] = '_';
    write_file(one_.path("libhalvoipc.so"), library);
    const Outcome outcome = hello({"-Dhalvoipc.library=" + one_.path("libhalvoipc.so")});
    expect_end(outcome, 0, "7: Hello, gateway\n");
    expect_end(outcome, 0, "SHM_INIT_FINISHED.\n"); // what the library prints, at the VM's end
}

// A VM unloads it with the class loader that loaded it.
TEST_P(Vm, ThatUnloadsTheLibraryLeavesItsHandler) {
    const std::string copy = one_.path("libhalvoipc.so");
    write_file(copy, content_of(HALVO_LIBRARY));
    ASSERT_EQ(dlclose(dlopen(copy.c_str(), RTLD_NOW)), 0);
    EXPECT_NE(dlopen(copy.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// What a library that cannot be loaded tells to do about it.
TEST_P(Vm, WithoutALibraryTellsWhatToDo) {
    std::string other = content_of(HALVO_LIBRARY);
    other[EI_CLASS] = static_cast<char>(ELFCLASS32 + ELFCLASS64 - other[EI_CLASS]);
    write_file(one_.path("libother.so"), other);
    const std::string option = "-Dhalvoipc.library=", nowhere = "/nowhere/libhalvoipc.so";
    std::vector<std::pair<Words, Words>> table{
        {{option + nowhere}, {"named by the property halvoipc.library", nowhere}},
        {{"-Djava.library.path=/nowhere"},
         {"no halvoipc in java.library.path", option + "<full path of libhalvoipc.so>",
          "-Djava.library.path=<its directory>"}},
        {{option + one_.path("libother.so")},
         {"The library has the other word size: this VM is of " + std::to_string(kWidth) +
          " bits"}}};
    if (restricts_native_access())
        table.push_back({{"--illegal-native-access=deny", kLibrary},
                         {"start java with --enable-native-access=ALL-UNNAMED"}});
    for (const auto &[options, told] : table) {
        const Outcome outcome = hello(options);
        for (const std::string &text : told) expect_end(outcome, 1, text);
    }
}

TEST_P(Vm, ExamplesPassAFile) {
    std::string lines;
    for (int i = 0; i < 2000; ++i) lines += "line " + std::to_string(i) + " \xc7\xd1\xb1\xdb\n";
    write_file(one_.path("sent"), lines);
    const auto sender = start_program(
        vm_words(one_, {kLibrary}, {"SendLines", one_.key_file(), "MT01", one_.path("sent")}),
        one_.path("log"));
    const Outcome got = run_vm(one_, {kLibrary},
                               {"ReceiveLines", one_.key_file(), "MT01", one_.path("got"), "2000"});
    EXPECT_EQ(got.status, 0) << got.out;
    EXPECT_EQ(sender->wait(), 0) << content_of(one_.path("log"));
    EXPECT_EQ(content_of(one_.path("got")), lines);
}
