// Our own contenders.
#include "bench/links/halvo.h"
#include "bench/links/in_place.h"
#include "bench/links/links.h"
#include "bench/links/runs.h"

namespace halvo::bench {

const Link kQ{"q_", throughput<QLink>, round_trip<QLink>};
const Link kFrx{"frx_", throughput<FrxLink>, round_trip<FrxLink>};
const Link kQInPlace{"q_ in place", throughput<QInPlaceLink>, round_trip<QInPlaceLink>};
const Link kFrxInPlace{"frx_ in place", throughput<FrxInPlaceLink>, nullptr};
const Link kFrxBody{"frx_readBody", throughput<FrxBodyLink>, nullptr};
const Link kFrxMany{"frx_...Many", throughput<FrxManyLink>, nullptr};

Measured q_throughput_with_open(const Shape &shape, uint32_t count, int channels, size_t used) {
    return throughput<QLink>(shape, count, channels, used);
}
Measured frx_throughput_with_open(const Shape &shape, uint32_t count, int channels, size_t used) {
    return throughput<FrxLink>(shape, count, channels, used);
}

} // namespace halvo::bench
