#include "tools/mon/look/monitor.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/segment/keys.h"
#include "core/segment/ring.h"
#include "halvo/queue.h"
#include "tools/frame/attachment.h"
#include "tools/frame/clock.h"
#include "tools/frame/output.h"
#include "tools/mon/look/options_file.h"

namespace halvo::mon {

using tools::kFailed;
using tools::kUsage;
using tools::ToolError;

namespace {

Origin origin_of(const std::string &key_file) {
    Origin origin;
    origin.id = shmget(ftok(key_file.c_str(), kSegmentProject), 0, 0);
    shmid_ds state{};
    if (origin.id >= 0 && shmctl(origin.id, IPC_STAT, &state) == 0)
        origin.made = static_cast<int32_t>(state.shm_ctime);
    return origin;
}

Image snapshot_of(const SegmentOptions &options, const Origin &origin) {
    const bool exists = access(options.snapshot_file.c_str(), F_OK) == 0;
    if (exists && !options.take) return Image::of_file(options.snapshot_file, origin);
    Image image = Image::of_segment();
    image.mark(origin);
    image.save(options.snapshot_file);
    return image;
}

} // namespace

Monitor::Monitor(const SegmentOptions &options)
    : options_(options), baseline_(HALVO_CHANNELS_MAX),
      printed_to_(memfd_create("printed", MFD_CLOEXEC)) {
    if (!printed_to_) throw ToolError(kFailed, std::string("memory: ") + std::strerror(errno));
    if (const std::string fault = refresh(); !fault.empty()) throw ToolError(kUsage, fault);
    if (!options.snapshot_file.empty()) {
        snapshot_.push_back(snapshot_of(options, origin_));
        snapshot = snapshot_.front().data();
    }
    lastcheck = baseline_.data();
}

Monitor::~Monitor() {
    lastcheck = nullptr;
    snapshot = nullptr;
}

std::string Monitor::refresh() {
    const int result = q_attach_view(options_.key_file.c_str());
    if (result == ESMS_ALREADY) return {};
    const bool first = origin_.id < 0;
    if (result != ESMS_OK) {
        const std::string fault = tools::attach_fault(options_.key_file, false);
        return fault.empty() ? options_.key_file + ": it is gone" : fault;
    }
    origin_ = origin_of(options_.key_file);
    if (!options_.options_file.empty()) load_options(options_.options_file, first);
    snapshot = nullptr; // of an earlier segment
    if (!first) begin_rates();
    return {};
}

// The printers' first rate would be of all messages ever.
void Monitor::begin_rates() {
    baselines_.clear();
    document(q_statprint_json, 'a'); // every print moves the point from which the next one measures
    baselines_.push_back({tools::monotonic(), baseline_});
}

void Monitor::measure(double seconds) {
    rate_seconds_ = seconds;
    begin_rates();
    const timespec pause{
        static_cast<time_t>(seconds),
        static_cast<long>((seconds - static_cast<double>(static_cast<time_t>(seconds))) * 1e9)};
    if (seconds > 0 && !tools::stop_signal()) nanosleep(&pause, nullptr);
}

// Rates are of the last seconds, however often the printers print.
void Monitor::choose_baseline() {
    const double now = tools::monotonic();
    while (baselines_.size() > 1 && now - baselines_[1].time >= rate_seconds_)
        baselines_.pop_front();
    if (!baselines_.empty()) baseline_ = baselines_.front().counts;
    lastcheck = baseline_.data();
}

void Monitor::note_start() const {
    if (!q_0() || load(q_0()->uptime) != 0) return;
    void *const address = shmat(origin_.id, nullptr, 0);
    if (reinterpret_cast<intptr_t>(address) == -1) return;
    store(static_cast<halvo_segment *>(address)->uptime, static_cast<int32_t>(std::time(nullptr)));
    shmdt(address);
}

std::string Monitor::printed(const std::function<void()> &print) {
    choose_baseline();
    std::fflush(stdout);
    const Descriptor before(dup(STDOUT_FILENO));
    const int file = printed_to_.get();
    if (!before || ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0 ||
        dup2(file, STDOUT_FILENO) < 0)
        throw ToolError(kFailed, std::string("standard output: ") + std::strerror(errno));
    print();
    std::fflush(stdout);
    baselines_.push_back({tools::monotonic(), baseline_});
    dup2(before.get(), STDOUT_FILENO);
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    const ssize_t got = pread(file, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

std::string Monitor::document(int (*write)(char, char *), char mode) const {
    std::vector<char> text(128 + 1024 * static_cast<size_t>(HALVO_CHANNELS_MAX));
    write(mode, text.data());
    return text.data();
}

} // namespace halvo::mon
