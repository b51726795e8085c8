// Reading a file queue without changing it: nothing is locked, created or repaired here.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fq/format.h"

namespace halvo::tools {

// A data file of a queue.
struct DataFile {
    int32_t order;
    int64_t size; // bytes
};

// One side's saved position, from the last whole record of its log.
struct SavedPosition {
    bool found = false;   // there is a whole record, and it can be read
    bool damaged = false; // there is one, and it cannot
    fq::Position at;
    int64_t torn = 0; // bytes behind the last whole record
};

// What stands at an offset of a data file.
struct Finding {
    enum Kind {
        item,       // whole, readable
        pending,    // whole, not committed
        end,        // the end item
        incomplete, // cut off by the end of the file
        damaged,    // anything else
    };
    Kind kind;
    int64_t offset;
    uint32_t length;    // bytes of data, as the header says
    const char *reason; // for damaged and incomplete
};

// The data files in their order; throws ToolError when the directory cannot be read.
std::vector<DataFile> data_files(const std::string &path);

SavedPosition saved_position(const std::string &path, char mode);

// Looks at everything in a data file from an offset on, until visit returns false. Behind damage it
// goes on at the next item that it finds. Nothing for a file that its reader has deleted meanwhile.
// Throws ToolError when the file cannot be read.
void inspect_file(const std::string &path, int32_t order, int64_t from,
                  const std::function<bool(const Finding &)> &visit);

} // namespace halvo::tools
