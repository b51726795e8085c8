// The files of a queue as halvo-fq sees them, and text and JSON for what is in them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/fq/inspect.h"
#include "tools/frame/text.h"

namespace halvo::tools {

// What is on disk of a queue; the constructor throws ToolError when that is nothing.
struct QueueFiles {
    explicit QueueFiles(const std::string &queue_path);
    std::string path;
    std::vector<DataFile> files;
    SavedPosition writer, reader;

    bool has(int32_t order) const;
    int32_t next_file(int32_t order) const; // the nearest later one; -1: there is none
};

// Calls visit for every readable item from the reader's position on, file by file as the reader would
// go, until visit returns false.
void for_each_waiting(const QueueFiles &queue,
                      const std::function<bool(DataReader &, const Finding &)> &visit);

// Removes the data files between two that a reader has gone through in one transaction.
void remove_consumed(const std::string &path, int32_t began, int32_t ended);

// A JSON string: of text as it is, of bytes with each above 0x7e as the character of that number.
std::string quoted(const std::string &text);
std::string quoted_bytes(const std::string &bytes);
// Bytes as they may be shown on a terminal: a dot for each that is not ASCII.
std::string printable(const std::string &bytes);

} // namespace halvo::tools
