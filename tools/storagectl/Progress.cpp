#include "tools/storagectl/Progress.h"

#include "bus/Clock.h"
#include "tools/storagectl/Output.h"

#include <utility>

namespace storagectl {

namespace {

constexpr quint32 kRedrawMilliseconds = 100;
constexpr quint32 kPlainLineMilliseconds = 30'000;
/// A rate is taken of the time since the last but one of these.
constexpr quint32 kRateMilliseconds = 10'000;
/// Shorter than this a rate says nothing.
constexpr qint64 kRatedMilliseconds = 50;

QString clockText(qint64 seconds) {
    const QString minutesAndSeconds =
        QString("%1:%2")
            .arg(seconds / 60 % 60, seconds < 3600 ? 1 : 2, 10, QChar('0'))
            .arg(seconds % 60, 2, 10, QChar('0'));
    return seconds < 3600 ? minutesAndSeconds
                          : QString::number(seconds / 3600) + ':' + minutesAndSeconds;
}

}  // namespace

Progress::Progress(Output& output, const QString& name) : _output(output), _name(name) {}

Progress::~Progress() {
    _output.status({});
}

void Progress::begin(const QString& what, qint64 from, qint64 total) {
    _what = what;
    _total = total;
    _lastShown = Clock::ticks();
    _rated = _next = {from, _lastShown};
}

void Progress::skip(qint64 bytes) {
    _rated.done += bytes;
    _next.done += bytes;
}

bool Progress::isDue() const {
    const Output::Style& style = _output.style();
    const quint32 pause = _output.talksToTerminal() ? kRedrawMilliseconds : kPlainLineMilliseconds;
    return !style.quiet && !style.json && Clock::ticks() - _lastShown >= pause;
}

void Progress::update(qint64 done, const QString& note) {
    if (!isDue()) {
        return;
    }
    _lastShown = Clock::ticks();
    const QString line = describe(done, _lastShown) + note;
    if (_lastShown - _next.tick >= kRateMilliseconds) {
        _rated = std::exchange(_next, Mark{done, _lastShown});
    }
    if (_output.talksToTerminal()) {
        _output.status(line);
    } else {
        _output.talk(line);
    }
}

QString Progress::describe(qint64 done, quint32 now) const {
    const qint64 elapsed = qMax<qint64>(1, now - _rated.tick);
    // What is begun anew is less than it was.
    const qint64 bytesASecond = qMax<qint64>(0, done - _rated.done) * 1000 / elapsed;
    QString text = _name + ": " + _what +
                   QString(" %1 of %2 (%3 %), %4/s")
                       .arg(humanSize(done), humanSize(_total))
                       .arg(_total > 0 ? done * 100 / _total : 100)
                       .arg(humanSize(bytesASecond));
    if (bytesASecond > 0) {
        text += ", " + clockText((_total - done + bytesASecond - 1) / bytesASecond) + " left";
    }
    return text;
}

QString summaryText(const QString& what, qint64 size, qint64 resumedFrom, qint64 milliseconds) {
    const double seconds = static_cast<double>(milliseconds) / 1000;
    QString line = what + QString(", %1 bytes in %2 s").arg(size).arg(seconds, 0, 'f', 2);
    if (milliseconds >= kRatedMilliseconds && size > resumedFrom) {
        line += QString(" (%1/s)").arg(humanSize((size - resumedFrom) * 1000 / milliseconds));
    }
    if (resumedFrom > 0) {
        line += QString(", of which %1 were there").arg(resumedFrom);
    }
    return line;
}

}  // namespace storagectl
