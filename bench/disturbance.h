// How much of the processors others took while we measured. Blocking contenders suffer from it more
// than polling ones, so ratios of a busy machine flatter the rings.
#pragma once

namespace halvo::bench {

class Disturbance {
public:
    Disturbance();
    // Says it in one line.
    void print() const;

private:
    struct Times {
        double all, idle, stolen; // seconds of all processors since the start of the machine
        double own;               // of this process and of those it has waited for
    };
    static Times now();
    Times start_;
};

} // namespace halvo::bench
