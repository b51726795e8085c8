// halvo-mon: the figures in the text exposition format of Prometheus.
#pragma once

#include <string>

#include "tools/mon/image.h"

namespace halvo::mon {

// Every metric with HELP and TYPE; names in UTF-8, escaped. `now` is in seconds since the epoch.
std::string prometheus_text(const Image &image, int32_t now);
// halvo_up 0 and nothing else, while there is no segment.
std::string prometheus_text_of_nothing();

} // namespace halvo::mon
