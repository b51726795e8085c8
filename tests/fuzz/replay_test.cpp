// Every input that is kept, among them each one that was ever a finding, through its target once
// more, without a fuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fuzz/attachment.h"
#include "tests/fuzz/targets.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"

namespace {

using Target = void (*)(const uint8_t *, size_t);

std::vector<std::filesystem::path> kept(const char *target) {
    std::vector<std::filesystem::path> files;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::string(HALVO_FUZZ_CORPUS "/") + target))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void replay(const char *name, Target target) {
    const auto files = kept(name);
    ASSERT_FALSE(files.empty());
    for (const auto &file : files) {
        SCOPED_TRACE(file.filename().string());
        const std::string bytes = halvo::test::content_of(file);
        const halvo::test::StdoutCapture unseen;
        target(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
}

} // namespace

TEST(Replay, segment) { replay("segment", halvo::fuzz::segment); }
TEST(Replay, file_queue) { replay("file_queue", halvo::fuzz::file_queue); }
TEST(Replay, options) { replay("options", halvo::fuzz::options); }
TEST(Replay, config) { replay("config", halvo::fuzz::config); }
