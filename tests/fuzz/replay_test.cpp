// Every input that is kept, among them each one that was ever a finding, through its target once
// more, without a fuzzer.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/fuzz/attachment.h"
#include "tests/fuzz/targets.h"
#include "tests/support/capture.h"

namespace {

using Target = void (*)(const uint8_t *, size_t);

void replay(const char *name, Target target) {
    int files = 0;
    for (const auto &file :
         std::filesystem::directory_iterator(HALVO_FUZZ_CORPUS "/" + std::string(name))) {
        SCOPED_TRACE(file.path());
        const std::string bytes = halvo::test::content_of(file.path());
        const halvo::test::StdoutCapture unseen;
        target(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        ++files;
    }
    EXPECT_GT(files, 0);
}

} // namespace

TEST(Replay, segment) { replay("segment", halvo::fuzz::segment); }
TEST(Replay, file_queue) { replay("file_queue", halvo::fuzz::file_queue); }
TEST(Replay, options) { replay("options", halvo::fuzz::options); }
TEST(Replay, config) { replay("config", halvo::fuzz::config); }
