#pragma once

#include <QtGlobal>

#include <initializer_list>

/// Random numbers (SplitMix64) that are the same with every compiler, library and board, which
/// the standard library promises for its engines only and not for its distributions. Each file,
/// and whatever spans several, has a stream of its own, so that one source more leaves the others'
/// bytes alone.
namespace sample {

class Random {
public:
    explicit Random(quint64 state) : _state(state) {}

    /// A number that stands for the sequence: a seed for what the parts name together.
    static quint64 seedOf(std::initializer_list<quint64> parts) {
        quint64 seed = 0;
        for (const quint64 part : parts) {
            seed = Random(seed ^ part).next();
        }
        return seed;
    }

    quint64 next() {
        _state += 0x9e3779b97f4a7c15u;
        quint64 mixed = _state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
        return mixed ^ (mixed >> 31);
    }

    /// From 0 to limit - 1. REQUIRES: limit from 1 to 2^32 - 1.
    qint64 below(qint64 limit) {
        return static_cast<qint64>(((next() >> 32) * static_cast<quint64>(limit)) >> 32);
    }

    /// From 0 to just below 1.
    double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

    /// Around 0, most of it between -1 and 1, none beyond 2: a bell good enough for noise.
    double bell() {
        // One at a time: the order within one expression is the compiler's choice.
        double sum = -2.0;
        for (int i = 0; i < 4; ++i) {
            sum += unit();
        }
        return sum;
    }

private:
    quint64 _state;
};

}  // namespace sample
