#include "tools/storagectl/Commands.h"

#include "bus/Clock.h"
#include "tools/storagectl/ReplayBlock.h"
#include "tools/storagectl/ReplayWorker.h"
#include "tools/storagectl/StepLines.h"

#include <QDateTime>

#include <unistd.h>

namespace storagectl {

namespace {

constexpr int kShortestWaitMilliseconds = 1;
constexpr int kWaitMilliseconds = 50;
constexpr int kNoonHour = 12;
constexpr int kFarthestZoneSeconds = 14 * 3600;

/// One run of `replay`.
class ReplayRun {
public:
    explicit ReplayRun(Context& context)
        : _output(context.output),
          _options(context.options.replay),
          _worker(context.files.connection(), context.options.timeoutSeconds * 1000) {}

    Outcome run() {
        Outcome outcome = _worker.checkUnit();
        if (!outcome.isDone()) {
            return outcome;
        }
        introduce();
        outcome = _worker.begin(_options);
        _begun = Clock::ticks();
        while (outcome.isDone() && !_isOver) {
            outcome = oneBlock();
        }
        return finish(outcome);
    }

private:
    void introduce() {
        _output.talk(QString("the days right below /root/data and /mmc from %1 on, in the unit's "
                             "local time")
                         .arg(_options.from.toString(Qt::ISODate)));
        _output.talk("a block carries its last value; the others count in its size alone");
        if (_options.step) {
            _output.talk("a line lets the next block come; the unit ends a replay held for 60 s");
        }
    }

    Outcome oneBlock() {
        std::optional<ReplayWorker::Block> block;
        Outcome outcome = _worker.next(block);
        if (!outcome.isDone() || !block) {
            _isOver = true;
            return outcome;
        }
        show(*block);
        outcome = holdBack();
        if (outcome.isDone() && !_isOver) {
            _worker.acknowledge();
        }
        return outcome;
    }

    /// Until the next block may come.
    Outcome holdBack() {
        Outcome outcome;
        while (outcome.isDone() && !mayGoOn()) {
            if (_lines.hasEnded() || _output.isClosed()) {
                _isOver = _isLeft = true;
                return outcome;
            }
            if (_worker.heldMilliseconds() > ReplayWorker::kPatienceMilliseconds) {
                return Outcome::failure(ExitCode::Failed,
                                        "replay: held for longer than 60 s, the unit has ended it");
            }
            outcome = _worker.wait(waitMilliseconds());
        }
        return outcome;
    }

    bool mayGoOn() {
        if (_output.isClosed()) {
            return false;
        }
        if (_options.step) {
            _steps += _lines.take();
            return _steps > 0 && _steps-- > 0;
        }
        if (_lines.isTerminal() && _lines.take() % 2 == 1) {
            _isPaused = !_isPaused;
            _output.talk(_isPaused ? "held, Enter goes on; the unit ends the replay after 60 s"
                                   : "going on");
        }
        return !_isPaused && untilDue() <= 0;
    }

    int untilDue() const {
        const int pause = _options.pace > 0 ? static_cast<int>(1000 / _options.pace) : 0;
        return pause - _worker.heldMilliseconds();
    }

    int waitMilliseconds() const {
        return _options.step || _isPaused
                   ? kWaitMilliseconds
                   : qBound(kShortestWaitMilliseconds, untilDue(), kWaitMilliseconds);
    }

    void show(const ReplayWorker::Block& block) {
        const ReplayBlock decoded = ReplayBlock::decode(block.bytes);
        if (_blocks++ == 0) {
            showStart(block.startTime);
        }
        _bytes += decoded.bytes;
        const QByteArray source = _options.channels.key(decoded.channel());
        QString content = "carries nothing";
        if (decoded.content == ReplayBlock::Content::Value) {
            content = QString("%1 = %2").arg(escaped(text(decoded.name)), decoded.text);
        } else if (decoded.content == ReplayBlock::Content::Damaged) {
            content = "its start is no value";
        }
        _output.line(QString("block %1: %2%3, the last value of %4 bytes")
                         .arg(block.sequence)
                         .arg(content, source.isEmpty() ? QString() : " (" + text(source) + ')')
                         .arg(decoded.bytes));
        _output.object(objectOf(block.sequence, decoded, source));
        _output.flush();
    }

    static QJsonObject objectOf(int sequence, const ReplayBlock& block, const QByteArray& source) {
        QJsonObject object{{"command", "replay"}, {"block", sequence}, {"bytes", block.bytes}};
        if (block.content == ReplayBlock::Content::Value) {
            object.insert("name", text(block.name));
            object.insert("kind", block.kind);
            object.insert("value", block.value);
        }
        object.insert("damaged", block.content == ReplayBlock::Content::Damaged);
        if (!source.isEmpty()) {
            object.insert("source", text(source));
        }
        return object;
    }

    /// The start comes back as the unit understood it, which tells its time zone.
    void showStart(quint32 startTime) {
        const QDateTime noon(_options.from, QTime(kNoonHour, 0), QTimeZone::utc());
        const auto offset = static_cast<int>(noon.toSecsSinceEpoch() - qint64{startTime});
        if (qAbs(offset) > kFarthestZoneSeconds) {
            _output.talk(QString("the unit names another start: second %1").arg(startTime));
            return;
        }
        const QDateTime start(_options.from, QTime(0, 0), QTimeZone(offset));
        _output.talk("by the unit's clock that is from " +
                     isoTime(start.toSecsSinceEpoch(), start.timeZone()));
    }

    Outcome finish(Outcome outcome) {
        _output.object({{"command", "replay"},
                        {"blocks", _blocks},
                        {"bytes", _bytes},
                        {"over", _isOver && !_isLeft && outcome.isDone()},
                        {"milliseconds", Clock::ticksSince(_begun)}});
        if (!outcome.isDone() || _isLeft) {
            _output.talk(QString("left after %1 blocks; the unit's process for it ends by itself, "
                                 "usually within 60 s")
                             .arg(_blocks));
            return outcome;
        }
        if (_blocks == 0) {
            return Outcome::failure(ExitCode::NotFound,
                                    "no block came: right below /root/data and /mmc there is "
                                    "nothing of these names from that day on");
        }
        _output.talk(QString("no block comes any more, the replay is over: %1 blocks, %2 of values")
                         .arg(_blocks)
                         .arg(humanSize(_bytes)));
        return outcome;
    }

    Output& _output;
    const ReplayOptions& _options;
    ReplayWorker _worker;
    StepLines _lines{STDIN_FILENO};
    int _steps = 0;
    bool _isPaused = false;
    bool _isOver = false;
    bool _isLeft = false;  ///< before its end, on purpose
    int _blocks = 0;
    qint64 _bytes = 0;
    quint32 _begun = 0;
};

}  // namespace

ExitCode replay(Context& context) {
    const Outcome outcome = ReplayRun(context).run();
    if (!outcome.isDone()) {
        context.output.error(outcome);
    }
    return outcome.code;
}

}  // namespace storagectl
