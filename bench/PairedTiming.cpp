#include "bench/PairedTiming.h"

#include <algorithm>

void PairedTiming::report(benchmark::State& state) const {
    std::vector<double> ratios;
    for (std::size_t turn = 0; turn < _ours.size(); ++turn) {
        ratios.push_back(_ours[turn] / _peer[turn]);
    }
    state.counters["ratio"] = median(ratios);
    state.counters["ours_ns"] = median(_ours) / _operations * 1e9;
    state.counters["peer_ns"] = (median(_peer) / _operations - _allowanceSeconds) * 1e9;
}

double PairedTiming::median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}
