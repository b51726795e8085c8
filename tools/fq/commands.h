// What halvo-fq does: one function a command. All throw ToolError.
#pragma once

#include <cstdint>
#include <string>

#include "tools/frame/program.h"

namespace halvo::tools {

inline constexpr int kNoChannel = -1;

struct Options {
    std::string queue, file = "-", output = "-";
    uint32_t batch = 1;
    uint64_t most = 0, most_bytes = 0; // 0: no end
    bool follow = false, keep_newline = false, json = false, quiet = false, durable = false;
};

// The result of a library call on a queue that failed, as an error; that of the signal that ended it.
[[noreturn]] void fail(const std::string &what, int result, const std::string &queue);

void put(const Options &options, int standard_output, Progress &progress);
void get(const Options &options, int standard_output, Progress &progress);
void peek(const Options &options, int standard_output, Progress &progress);
void dump(const Options &options, int standard_output, Progress &progress);
void stat(const Options &options, int standard_output, Progress &progress);
void verify(const Options &options, int standard_output, Progress &progress);

} // namespace halvo::tools
