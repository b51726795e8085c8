// sms_fq: going over the readable items of a data file, as a reader would that meets no damage.
#pragma once

#include <cstdint>

namespace halvo::fq {

// What stands behind them.
enum class Behind {
    nothing,    // the file ends there, or no item begins there
    unfinished, // an item that was not committed, or not written whole
    end,        // the end item
    unknown,    // the file cannot be read
};

// Moves an offset behind the whole readable items that stand from it on in a file of `size` bytes.
Behind pass_readable_items(int fd, int64_t size, int32_t &offset) noexcept;

} // namespace halvo::fq
