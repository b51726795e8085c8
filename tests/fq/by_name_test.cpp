// What the path names is the queue, whatever operators do to the files: between two transactions,
// while a transaction runs, and to the descriptors that are kept.
#include <sys/resource.h>

#include <filesystem>

#include "tests/fq/queue_fixture.h"
#include "tests/support/peer.h"

using namespace halvo::test;
namespace fs = std::filesystem;

namespace {

// A queue in a directory of its own, which may be moved; both sides have been used.
class ByName : public testing::Test {
protected:
    Queue place;
    const std::string dir = place.directory() + "/live", moved = place.directory() + "/moved";
    const std::string path = dir + "/q";

    ByName() {
        fs::create_directory(dir);
        EXPECT_EQ(put("one"), 0);
        EXPECT_EQ(put("two"), 0);
        EXPECT_EQ(take(), "one");
    }
    int put(const std::string &data, const char *queue = nullptr) const {
        return fq_enqueue_away(-1, -1, 1, queue ? queue : path.c_str(), data.data(),
                               static_cast<unsigned>(data.size()));
    }
    std::string take(const char *queue = nullptr) const {
        fqtrans trans;
        char buffer[122];
        const int result = fq_dequeue(-1, queue ? queue : path.c_str(), buffer, 100, &trans);
        if (result <= 0) return "[" + std::to_string(result) + "]";
        if (fq_dequeue_commit(-1, &trans) != 0) return "[commit]";
        return {buffer + 20, static_cast<size_t>(trans.itemlen)};
    }
    std::string others_take(const std::string &queue) const {
        const std::string got = place.directory() + "/got";
        Peer other([&] {
            std::ofstream(got) << take(queue.c_str());
            return 0;
        });
        EXPECT_EQ(other.wait(), 0);
        std::string text;
        std::ifstream(got) >> text;
        return text;
    }
    std::string file(const std::string &suffix) const { return path + "." + suffix; }
    int begin(fqtrans &trans, const std::string &data) const {
        return fq_enqueue(-1, path.c_str(), data.data(), static_cast<unsigned>(data.size()),
                          &trans);
    }
    // The open descriptor of a file of the queue.
    int descriptor_of(const char *suffix) const {
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (fs::read_symlink(entry.path(), gone) == file(suffix))
                return std::atoi(entry.path().filename().c_str());
        }
        return -1;
    }
};

} // namespace

TEST_F(ByName, a_directory_moved_away_and_made_anew_is_a_new_queue) {
    fs::rename(dir, moved);
    fs::create_directory(dir);
    EXPECT_EQ(put("new"), 0);
    EXPECT_EQ(others_take(path), "new");
    EXPECT_EQ(take((moved + "/q").c_str()), "two") << "untouched";
    EXPECT_EQ(take((moved + "/q").c_str()), "[0]");
}

TEST_F(ByName, a_directory_replaced_by_a_copy_is_the_copy) {
    fs::copy(dir, moved);
    fs::rename(dir, dir + ".old");
    fs::rename(moved, dir);
    EXPECT_EQ(put("three"), 0);
    EXPECT_EQ(others_take(path), "two");
    EXPECT_EQ(take(), "three");
    EXPECT_EQ(take((dir + ".old/q").c_str()), "two");
    EXPECT_EQ(take((dir + ".old/q").c_str()), "[0]");
}

TEST_F(ByName, a_relative_path_counts_with_its_directory) {
    fs::create_directory(moved);
    const auto in = [&](const std::string &directory) { fs::current_path(directory); };
    in(dir);
    EXPECT_EQ(put("live", "q"), 0);
    in(moved);
    EXPECT_EQ(put("other", "q"), 0);
    EXPECT_EQ(take("q"), "other");
    // A transaction stays where it was begun.
    fqtrans trans;
    EXPECT_GT(fq_enqueue(-1, "q", "more", 4, &trans), 0);
    in(dir);
    EXPECT_GT(fq_enqueue_next(-1, "most", 4, &trans), 0);
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
    EXPECT_EQ(take("q"), "two");
    EXPECT_EQ(take("q"), "live");
    EXPECT_EQ(take("q"), "[0]");
    in(moved);
    EXPECT_EQ(take("q"), "more");
    EXPECT_EQ(take("q"), "most");
    in("/");
}

TEST_F(ByName, a_data_file_renamed_or_replaced_is_left_alone) {
    fs::rename(file("000000000"), file("away"));
    const auto size = fs::file_size(file("away"));
    EXPECT_EQ(put("three"), 0);
    EXPECT_EQ(fs::file_size(file("away")), size);
    EXPECT_TRUE(fs::exists(file("000000000")));
    // By a copy, while a hard link to the old one exists.
    fs::copy_file(file("000000000"), file("copy"));
    fs::create_hard_link(file("000000000"), file("link"));
    const auto linked = fs::file_size(file("link"));
    fs::rename(file("copy"), file("000000000"));
    EXPECT_EQ(put("four"), 0);
    EXPECT_EQ(fs::file_size(file("link")), linked);
    fs::copy_file(file("000000000"), file("copy"));
    std::ofstream(file("head")) << record(0, 50);
    EXPECT_EQ(take(), "three");
    fs::rename(file("copy"), file("000000000"));
    EXPECT_EQ(others_take(path), "four");
}

TEST_F(ByName, a_lock_file_replaced_by_rename_is_the_new_one) {
    for (const char *suffix : {"wrlk", "rdlk"}) {
        fs::create_hard_link(file(suffix), file(suffix) + ".link"); // the old one has a name still
        std::ofstream(file("new")) << "";
        fs::rename(file("new"), file(suffix));
    }
    Signal held;
    Peer holder([&] {
        fqtrans trans;
        if (begin(trans, "theirs") < 0) return 1;
        held.send();
        usleep(100000);
        return fq_enqueue_commit(-1, &trans);
    });
    ASSERT_TRUE(held.wait());
    EXPECT_EQ(put("ours"), 0);
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(take(), "two");
    EXPECT_EQ(take(), "theirs");
    EXPECT_EQ(take(), "ours");
}

// Whatever was replaced after the begin: 0 is not answered for items that are in no queue, or that
// another holder may overwrite.
TEST_F(ByName, a_commit_into_a_file_that_is_not_the_queues_any_more_fails) {
    const std::vector<std::pair<const char *, std::function<void()>>> faults = {
        {"unlinked", [&] { fs::remove(file("000000000")); }},
        {"renamed", [&] { fs::rename(file("000000000"), file("away")); }},
        {"replaced",
         [&] {
             fs::copy_file(file("000000000"), file("copy"));
             fs::rename(file("copy"), file("000000000"));
         }},
        {"directory replaced",
         [&] {
             fs::copy(dir, moved);
             fs::rename(dir, moved + ".old");
             fs::rename(moved, dir);
         }},
        {"lock file replaced",
         [&] {
             std::ofstream(file("new")) << "";
             fs::rename(file("new"), file("wrlk"));
         }},
    };
    for (const auto &[what, fault] : faults)
        for (const bool batch : {false, true}) {
            SCOPED_TRACE(what);
            fs::remove_all(moved + ".old");
            fqtrans trans;
            ASSERT_GT(begin(trans, "lost"), 0);
            ASSERT_TRUE(!batch || fq_enqueue_next(-1, "too", 3, &trans) > 0);
            fault();
            EXPECT_LT(fq_enqueue_commit(-1, &trans), 0);
            EXPECT_EQ(put("next"), 0) << "the side is free";
            fs::remove(file("head"));
            fs::remove(file("away"));
            std::string all;
            for (std::string got = take(); got != "[0]" && got[0] != '['; got = take())
                all += got + " ";
            EXPECT_EQ(all.find("lost"), std::string::npos) << all;
        }
}

// A host closes what is not its own, and its next files may get the numbers.
TEST_F(ByName, a_kept_descriptor_closed_by_the_host_is_opened_again) {
    for (const char *suffix : {"wrlk", "tail", "000000000", "rdlk", "head"}) {
        SCOPED_TRACE(suffix);
        const int fd = descriptor_of(suffix);
        EXPECT_TRUE(fd < 0 || close(fd) == 0);
        const halvo::Descriptor hosts(
            open((place.directory() + "/hosts").c_str(), O_RDWR | O_CREAT, 0666));
        EXPECT_EQ(put(suffix), 0);
        EXPECT_EQ(fs::file_size(place.directory() + "/hosts"), 0u);
    }
    EXPECT_EQ(take(), "two");
    for (const char *suffix : {"wrlk", "tail", "000000000", "rdlk", "head"})
        EXPECT_EQ(take(), suffix);
}

TEST_F(ByName, a_daemon_that_closes_all_and_uses_another_queue_first) {
    Peer daemon([&] {
        const std::string other = dir + "/other";
        if (put("x", other.c_str()) != 0) return 1;
        closefrom(3);
        EXPECT_EQ(put("elsewhere", other.c_str()), 0);
        EXPECT_EQ(put("three"), 0);
        EXPECT_EQ(take(), "two");
        EXPECT_EQ(take(other.c_str()), "x");
        return 0;
    });
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(take(), "three");
    EXPECT_EQ(take((dir + "/other").c_str()), "elsewhere");
}

TEST_F(ByName, with_few_descriptors_left_nothing_is_kept_and_all_goes_on) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = 24;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(put("x", (dir + "/n" + std::to_string(i)).c_str()), 0);
    EXPECT_EQ(take(), "two");
}
