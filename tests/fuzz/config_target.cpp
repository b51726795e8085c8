#include "tests/fuzz/attachment.h"
#include "tests/fuzz/targets.h"
#include "tools/qm/config.h"
#include "tools/qm/plan.h"

void halvo::fuzz::config(const uint8_t *data, size_t size) {
    static const std::string path = scratch().path("config.toml");
    test::write_file(path, {reinterpret_cast<const char *>(data), size});
    try {
        for (const qm::ChannelPlan &channel : qm::load_config(path).channels)
            qm::layout_of(channel);
    } catch (const qm::Error &) { // the only one that may come out
    }
}
