// What the path names is the queue, whatever operators do to the files: between two transactions,
// while a transaction runs, and to the descriptors that are kept.
#include <filesystem>

#include "tests/fq/queue_fixture.h"
#include "tests/support/peer.h"

using namespace halvo::test;
namespace fs = std::filesystem;

namespace {

// A queue in a directory of its own, which may be moved; both sides have been used.
// Right after the files were made, and when their directory has been left alone for a while.
class ByName : public testing::TestWithParam<bool> {
protected:
    Queue place;
    const std::string dir = place.directory() + "/live", moved = place.directory() + "/moved";
    const std::string path = dir + "/q";

    ByName() {
        fs::create_directory(dir);
        EXPECT_EQ(put("one"), 0);
        EXPECT_EQ(put("two"), 0);
        EXPECT_EQ(take(), "one");
        rest();
    }
    // Lets the directory's time pass, and each side look at it then.
    void rest() const {
        if (!GetParam()) return;
        usleep(20000);
        for (const char mode : {'w', 'r'}) {
            fqtrans trans{};
            std::strcpy(trans.path, path.c_str());
            EXPECT_EQ(fq_lock(mode, &trans), 31);
            EXPECT_EQ(fq_unlock(&trans), 0);
        }
        usleep(20000);
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

INSTANTIATE_TEST_SUITE_P(, ByName, testing::Bool(),
                         [](const auto &kind) { return kind.param ? "at_rest" : "at_once"; });

TEST_P(ByName, a_directory_replaced_by_a_copy_is_the_copy) {
    fs::copy(dir, moved);
    fs::rename(dir, dir + ".old");
    fs::rename(moved, dir);
    EXPECT_EQ(put("three"), 0);
    EXPECT_EQ(others_take(path), "two");
    EXPECT_EQ(take(), "three");
    EXPECT_EQ(take((dir + ".old/q").c_str()), "two");
    EXPECT_EQ(take((dir + ".old/q").c_str()), "[0]");
}

TEST_P(ByName, a_relative_path_counts_with_its_directory) {
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

TEST_P(ByName, a_data_file_renamed_or_replaced_is_left_alone) {
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

TEST_P(ByName, a_lock_file_replaced_by_rename_is_the_new_one) {
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

TEST_P(ByName, a_commit_into_a_file_that_is_not_the_queues_any_more_fails) {
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
            rest();
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

TEST_P(ByName, a_kept_descriptor_closed_by_the_host_is_opened_again) {
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
