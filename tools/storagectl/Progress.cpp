#include "tools/storagectl/Progress.h"

#include "bus/Clock.h"
#include "tools/storagectl/Output.h"

namespace storagectl {

namespace {

constexpr quint32 kRedrawMilliseconds = 100;
constexpr quint32 kPlainLineMilliseconds = 30'000;

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
    _from = from;
    _total = total;
    _begun = Clock::ticks();
    _lastShown = _begun;
}

void Progress::update(qint64 done) {
    const Output::Style& style = _output.style();
    const quint32 now = Clock::ticks();
    const quint32 pause = _output.talksToTerminal() ? kRedrawMilliseconds : kPlainLineMilliseconds;
    if (style.quiet || style.json || now - _lastShown < pause) {
        return;
    }
    _lastShown = now;
    if (_output.talksToTerminal()) {
        _output.status(describe(done, now));
    } else {
        _output.talk(describe(done, now));
    }
}

QString Progress::describe(qint64 done, quint32 now) const {
    const qint64 elapsed = qMax<qint64>(1, now - _begun);
    const qint64 bytesASecond = (done - _from) * 1000 / elapsed;
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

}  // namespace storagectl
