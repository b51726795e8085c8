// halvo-mon: the figures in the text exposition format of Prometheus, for the served page and for the
// file of a textfile collector alike.
#pragma once

#include <string>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

// Every metric with HELP and TYPE; names in UTF-8, escaped. `view` is the sample's segment; without
// one there is "halvo_up 0" and the time of the sample alone.
std::string prometheus_text(const Sample &sample, const qm::SegmentView *view);

} // namespace halvo::mon
