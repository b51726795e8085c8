// halvo-mon: where the live screen's samples come from.
#pragma once

#include <string>

#include "tools/mon/look/tracker.h"

namespace halvo::mon {

class Source {
public:
    virtual ~Source() = default;
    // The sample to show now, judged.
    virtual Sample take() = 0;
    // Moves a record by so many samples; live there is nothing to move.
    virtual void step(int) {}
    virtual bool is_record() const { return false; }
    virtual std::string title() const = 0;
    // The segment itself, for messages and types; null without one.
    virtual const qm::SegmentView *view() const { return nullptr; }
};

class LiveSource : public Source {
public:
    explicit LiveSource(const std::string &key_file) : title_(key_file), sampler_(key_file) {}
    Sample take() override {
        Sample sample = sampler_.take();
        tracker_.judge(sample);
        return sample;
    }
    std::string title() const override { return title_; }
    const qm::SegmentView *view() const override { return sampler_.view(); }

private:
    std::string title_;
    Sampler sampler_;
    Tracker tracker_;
};

} // namespace halvo::mon
