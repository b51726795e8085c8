// halvo-mon: the segment as a monitoring program sees it: attached, with the printers' globals
// prepared, and an image of it to look at in peace.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "halvo/status.h"

namespace halvo::mon {

// All headers and counters of one moment, without messages.
class Image {
public:
    static Image of_segment(); // the attached one
    // A file of such an image. Throws ToolError when it is not one of the attached segment.
    static Image of_file(const std::string &path);
    void save(const std::string &path) const; // replaces the file at once or not at all

    const halvo_segment &header() const;
    int channels() const;
    const halvo_channel &channel(int number) const;
    // False for a channel that a damaged segment holds nothing of.
    bool usable(int number) const { return channel(number).qcnt != 0; }
    void *data() { return bytes_.data(); }

private:
    Image();
    std::vector<char> bytes_;
};

struct SegmentOptions {
    std::string key_file;
    std::string options_file;  // none when empty
    std::string snapshot_file; // none when empty; made when there is none yet
    bool take = false;         // makes the snapshot anew
};

// The attachment and the globals, for the life of the process. Throws ToolError. What the library
// has to say on the way goes to descriptor 1.
class Monitor {
public:
    explicit Monitor(const SegmentOptions &options);
    ~Monitor();
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // Begins to measure rates, for so many seconds. Returns early when the program is to end.
    void measure(double seconds);

    // What a printer prints, in EUC-KR.
    std::string printed(const std::function<void()> &print) const;
    // What a printer writes into a buffer, in EUC-KR.
    std::string document(int (*write)(char, char *), char mode) const;

private:
    std::vector<halvo_counter> baseline_;
    std::vector<Image> snapshot_; // one or none
    int printed_to_;              // a file in memory
};

} // namespace halvo::mon
