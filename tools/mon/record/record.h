// halvo-mon: a record of all figures, a file of SQLite that other tools can read too.
//
//   samples(time, taken, up, fault, segment, bytes, started, clock, whole)   one for each look
//   figures(time, number, name, type, ...)      one for each channel that changed since the look
//                                               before; for all of them where samples.whole is 1
//
// Times are seconds since the epoch, `taken` is of the monotonic clock. The record is bounded: the
// oldest looks go when the file would become larger.
#pragma once

#include <memory>
#include <vector>

#include "tools/mon/look/source.h"
#include "tools/mon/record/database.h"

namespace halvo::mon {

class Recorder {
public:
    // Adds to the file, or makes it. `most` is its greatest size in bytes.
    Recorder(const std::string &path, int64_t most);
    void add(const Sample &sample); // throws ToolError for one before the record's end

private:
    void follow_others();
    void insert(const Sample &sample);
    void add_channel(const ChannelSample &channel, int64_t time);
    void make_room();

    Database database_;
    Statement samples_, figures_;
    int64_t most_;
    int64_t version_ = -1; // of the file, which changes when another process writes to it
    int64_t last_time_ = 0;
    int since_whole_ = -1; // samples; -1: none of this run yet
    Sample before_;
};

// The record as a source of samples. It stands at one of them, the last at first.
class RecordSource : public Source {
public:
    explicit RecordSource(const std::string &path);

    Sample take() override; // the one where it stands
    void step(int samples) override;
    bool is_record() const override { return true; }
    std::string title() const override { return path_; }

    int size() const { return static_cast<int>(times_.size()); }
    int position() const { return position_; }
    int64_t time_of(int position) const { return times_[static_cast<size_t>(position)]; }
    void go_to(int position);
    int position_of(int64_t time) const; // the last one up to a time, or the first

private:
    Sample loaded(int position); // follows the one before, or begins at a whole one
    void load_figures(Sample &sample, const char *sql, int64_t time);

    std::string path_;
    Database database_;
    std::vector<int64_t> times_;
    int position_ = 0, at_ = -1; // shown; what state_ is of
    Sample state_;
    Tracker tracker_;
};

} // namespace halvo::mon
