// Reading a file queue without changing it: nothing is locked, created or repaired here.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/base/posix.h"
#include "fq/files/format.h"

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
    uint32_t stamp;     // when it was written, seconds since the epoch
    const char *reason; // for damaged and incomplete
};

// The data files in their order; throws ToolError when the directory cannot be read.
std::vector<DataFile> data_files(const std::string &path);

SavedPosition saved_position(const std::string &path, char mode);

// Throws ToolError, as for wrong usage, when there is nothing on disk of a queue of that name.
void need_queue(const std::string &path);
// The same when this user cannot take a side's lock, or there is no place for it.
void need_side(const std::string &path, char mode);

// For a failure: how much room the queue's disk has, where that may be the cause; else empty.
std::string room_text(const std::string &path);

// A data file, read in pieces: of large items no more than header and trailer. Nothing for a file
// that its reader has deleted meanwhile. All throw ToolError when it cannot be read.
class DataReader {
public:
    DataReader(const std::string &path, int32_t order);
    int64_t size() const { return size_; }

    // Looks at everything from an offset on, until visit returns false. Behind damage it goes on at
    // the next item that it finds.
    void visit(int64_t from, const std::function<bool(const Finding &)> &visit);
    // The data of an item.
    std::string data(const Finding &finding);
    // Up to `count` bytes from an offset; less at the end of the file. Valid until the next call.
    std::string_view bytes(int64_t offset, size_t count);

private:
    void load(int64_t offset, size_t count);

    std::string name_;
    Descriptor file_;
    int64_t size_ = 0;
    std::vector<char> window_;
    int64_t begin_ = 0; // of what the window holds
    size_t length_ = 0, ahead_ = 128;
};

} // namespace halvo::tools
