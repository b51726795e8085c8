// sms_fq: the file-queue fields of the optional channel of an operation. Everything that the file
// queue stores in a channel header, it stores here.
#pragma once

#include "halvo/segment.h"

namespace halvo::fq {

class ChannelStats {
public:
    explicit ChannelStats(int channel) noexcept; // no such channel: all of this does nothing

    void writer_alive() noexcept; // heartbeat and process id
    void reader_alive() noexcept;
    bool read_refused() noexcept; // the channel's read rate is above its limit

    void committed_writes(int items, int errors) noexcept;
    void single_write(int type, bool success) noexcept;
    void committed_reads(int items, int errors) noexcept;

private:
    halvo_channel *q_;
};

} // namespace halvo::fq
