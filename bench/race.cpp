#include "bench/race.h"

#include <algorithm>
#include <cmath>

namespace halvo::bench {

namespace {

// The value below which `quarters` of 4 of them lie.
double quartile(std::vector<double> values, size_t quarters) {
    const size_t last = values.size() - 1;
    const size_t place = quarters == 2 ? values.size() / 2 : (last * quarters + 2) / 4;
    const auto at = values.begin() + static_cast<ptrdiff_t>(place);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}
double median(const std::vector<double> &values) { return quartile(values, 2); }

// Finds the count that takes about the wanted time. Runs that are much too short tell too little.
void calibrate(Contender &contender, double seconds) {
    for (int tries = 0; tries < 3; ++tries) {
        const double took = std::max(contender.run(contender.count).seconds, 1e-6);
        const double wanted = contender.count * seconds / took;
        contender.count = static_cast<uint32_t>(std::clamp(wanted, 100.0, 2e8));
        if (took > seconds / 20) break;
    }
}

// False when the contender failed; it takes no further part.
bool attempt(Contender &contender, Report &report, const std::string &what,
             const std::function<void()> &step) {
    try {
        step();
        return true;
    } catch (const Interrupted &) {
        throw;
    } catch (const std::exception &error) {
        report.fail(what + ", " + contender.name, error.what());
        contender.run = nullptr;
        contender.rounds.clear();
        return false;
    }
}

} // namespace

void race(std::vector<Contender> &contenders, const Settings &settings, Report &report,
          const std::string &what) {
    for (Contender &contender : contenders)
        attempt(contender, report, what, [&] { calibrate(contender, settings.seconds); });
    for (int round = 0; round < settings.rounds; ++round)
        for (Contender &contender : contenders)
            if (contender.run)
                attempt(contender, report, what,
                        [&] { contender.rounds.push_back(contender.run(contender.count)); });
}

double median_of(const Contender &contender, Value value) {
    std::vector<double> values;
    for (const Measured &measured : contender.rounds) values.push_back(measured.*value);
    return median(values);
}

void compare(Report &report, const Row &names, const Contender &ours, const Contender &peer,
             Value value, Better better) {
    if (ours.rounds.empty() || peer.rounds.empty()) return;
    std::vector<double> ratios;
    for (size_t i = 0; i < ours.rounds.size(); ++i) {
        const double ratio = ours.rounds[i].*value / (peer.rounds[i].*value);
        ratios.push_back(better == Better::higher ? ratio : 1 / ratio);
    }
    Row row = names;
    row.peer = peer.name;
    row.ours = median_of(ours, value);
    row.theirs = median_of(peer, value);
    row.ratio = median(ratios);
    row.spread = quartile(ratios, 3) - quartile(ratios, 1);
    report.add(row);
}

} // namespace halvo::bench
