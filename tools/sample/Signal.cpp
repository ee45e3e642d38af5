#include "tools/sample/Signal.h"

#include <cmath>

namespace sample {

namespace {

constexpr qint64 kDaySeconds = 86'400;
constexpr qint64 kHourSeconds = 3'600;

double levelOn(quint64 seed, qint64 day) {
    return Random(Random::seedOf({seed, static_cast<quint64>(day)})).bell();
}

}  // namespace

double wave(double turns) {
    // Two parabolas: near enough to a sine for anything that grows warm by day.
    const double part = turns - std::floor(turns);
    return part < 0.5 ? 16.0 * part * (0.5 - part) : -16.0 * (part - 0.5) * (1.0 - part);
}

Pump::Pump(quint64 seed) {
    Random random(seed);
    _period = 2 * kHourSeconds + random.below(2 * kHourSeconds);
    _offset = random.below(_period);
    _onFor = _period / 4 + random.below(_period / 4);
}

bool Pump::isOn(qint64 time) const {
    return (time + _offset) % _period < _onFor;
}

Signal::Signal(const Shape& shape, quint64 seed, qint64 dayStart) : _shape(shape) {
    Random ofSource(seed);
    _phase = 0.6 + 0.2 * ofSource.unit();
    _driftDays = 9.0 + 12.0 * ofSource.unit();
    const qint64 day = dayStart / kDaySeconds;
    Random ofDay(Random::seedOf({seed, static_cast<quint64>(day), 1}));
    _stepAt = dayStart + 6 * kHourSeconds + ofDay.below(12 * kHourSeconds);
    _before = levelOn(seed, day - 1);
    _after = levelOn(seed, day);
}

double Signal::at(qint64 time, bool pumpIsOn, Random& noise) const {
    const double days = static_cast<double>(time) / static_cast<double>(kDaySeconds);
    const double value = _shape.base + _shape.daily * wave(days + _phase) +
                         _shape.drift * wave(days / _driftDays + _phase) +
                         _shape.step * (time < _stepAt ? _before : _after) +
                         (pumpIsOn ? _shape.pump : 0.0) + _shape.noise * noise.bell();
    return std::round(value * 100.0) / 100.0;
}

}  // namespace sample
