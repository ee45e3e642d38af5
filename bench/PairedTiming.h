#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

/// Times two sides of a comparison in turns, one block of each, so that what else the machine
/// does falls on both; the first side changes with every turn. The ratio is the median of the
/// turns' own ratios.
class PairedTiming {
public:
    /// `operations` is how many each block does. The allowance, per operation, is granted to us on
    /// top of the peer's time.
    explicit PairedTiming(int operations, double allowanceSeconds = 0)
        : _operations(operations), _allowanceSeconds(allowanceSeconds) {}

    /// Runs one block of each side; returns the seconds that ours took.
    template <typename Ours, typename Peer>
    double turn(const Ours& ours, const Peer& peer) {
        const bool oursFirst = _ours.size() % 2 == 0;
        if (oursFirst) {
            _ours.push_back(seconds(ours));
        }
        _peer.push_back(seconds(peer) + _operations * _allowanceSeconds);
        if (!oursFirst) {
            _ours.push_back(seconds(ours));
        }
        return _ours.back();
    }

    /// One turn where ours must be first, because something has to end before the peer's block.
    template <typename Ours, typename Between, typename Peer>
    double turnAfter(const Ours& ours, const Between& between, const Peer& peer) {
        _ours.push_back(seconds(ours));
        between();
        _peer.push_back(seconds(peer) + _operations * _allowanceSeconds);
        return _ours.back();
    }

    /// Sets the counters "ratio", "ours_ns" and "peer_ns" (medians, an operation).
    void report(benchmark::State& state) const;

    static double median(std::vector<double> values);

private:
    template <typename Block>
    static double seconds(const Block& block) {
        const auto begin = std::chrono::steady_clock::now();
        block();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    int _operations;
    double _allowanceSeconds;
    std::vector<double> _ours;
    std::vector<double> _peer;
};
