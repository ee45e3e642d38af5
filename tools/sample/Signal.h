#pragma once

#include "tools/sample/Random.h"

/// What there is to measure at a site: values over time that hang together over midnight and
/// between sources, without a state, so that any day can be recorded on its own. Times are seconds
/// since 1970. Free of the mathematical library, whose last bits differ between boards.
namespace sample {

/// The site's pump: on and off again at times that the seed fixes. It shows in flows, pressures,
/// levels, inputs and the supply current alike.
class Pump {
public:
    explicit Pump(quint64 seed);
    bool isOn(qint64 time) const;

private:
    qint64 _period;
    qint64 _offset;
    qint64 _onFor;
};

/// How far each influence moves a value, in the value's own unit.
struct Shape {
    double base;
    double daily;  ///< height of the wave of a day
    double drift;  ///< height of the wave of some weeks
    double step;   ///< how far it settles anew, once a day
    double pump;   ///< added while the pump is on
    double noise;
};

/// One value of one source on one day.
class Signal {
public:
    Signal(const Shape& shape, quint64 seed, qint64 dayStart);
    /// The noise is the caller's. The result is rounded to hundredths, as converters do.
    double at(qint64 time, bool pumpIsOn, Random& noise) const;

private:
    Shape _shape;
    double _phase;
    double _driftDays;
    qint64 _stepAt;
    double _before;
    double _after;
};

/// A wave between -1 and 1 that starts at 0 and rises, one to a turn. REQUIRES: turns from 0 on.
double wave(double turns);

}  // namespace sample
