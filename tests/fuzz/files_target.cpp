// Files that an operator writes: print options, and a queue manager's configuration.
#include <memory>

#include "halvo/queue.h"
#include "halvo/status.h"
#include "tests/fuzz/attachment.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"
#include "tools/qm/config.h"
#include "tools/qm/plan.h"

void halvo::fuzz::options(const uint8_t *data, size_t size) {
    static const std::string path = scratch().path("channels.opt");
    Input input(data, size);
    const int most = input.byte() + 1;
    test::write_file(path, input.bytes(1 << 16));
    const Descriptor file = open_file(path.c_str(), O_RDONLY);
    const std::unique_ptr<char[]> line(new char[static_cast<size_t>(most)]);
    while (readline(file.get(), line.get(), most) > 0) continue;
    place_segment(sound_size());
    attach();
    q_load_print_options(path.c_str());
    q_statprint('s');
    q_statprint2('s');
    q_statprint2('w');
    q_statlog('s');
}

void halvo::fuzz::config(const uint8_t *data, size_t size) {
    static const std::string path = scratch().path("config.toml");
    test::write_file(path, {reinterpret_cast<const char *>(data), size});
    try {
        for (const qm::ChannelPlan &channel : qm::load_config(path).channels)
            qm::layout_of(channel);
    } catch (const qm::Error &) { // the only one that may come out
    }
}
