#include "tools/storagectl/Commands.h"

#include "bus/Clock.h"
#include "tools/storagectl/Interrupt.h"
#include "tools/storagectl/ThumbsProgress.h"

#include <QJsonArray>

namespace storagectl {

namespace {

constexpr char kDaemonCommands[] = "StorageManager.to";
constexpr int kThumbnailDayCommand = 220;
constexpr int kSubscriptionMilliseconds = 2000;
constexpr int kWaitMilliseconds = 250;
/// What was asked for while the daemon closed its notification is announced anew well within it.
constexpr int kIdleMilliseconds = 3000;
constexpr qsizetype kListedDays = 20;

/// One run of `thumbs build`.
class ThumbsRun {
public:
    explicit ThumbsRun(Context& context)
        : _context(context),
          _options(context.options.thumbs),
          _progress(_options.job, _options.from, _options.to) {}

    Outcome run() {
        Outcome outcome = checkUnit();
        if (outcome.isDone()) {
            outcome = request();
        }
        if (!outcome.isDone()) {
            return outcome;
        }
        while (!_progress.unfinished().isEmpty() && outcome.isDone()) {
            bus().readWaitingMessages(kWaitMilliseconds);
            report();
            outcome = whyToEnd();
        }
        _context.output.status({});
        return finish(outcome);
    }

private:
    PubSubInterface& bus() { return _context.files.connection().bus(); }
    static QString words(const QByteArray& days) { return QString::fromLatin1(days); }

    /// Is there a daemon, and does it have such a job?
    Outcome checkUnit() {
        const QByteArray folder = "/mmc/" + _options.job;
        Outcome outcome = checkWireName(_options.job);
        FileService::Entry entry;
        if (outcome.isDone()) {
            outcome = outcomeOf(_context.files.lookUp(folder, entry), "thumbs build");
        }
        if (outcome.isDone() && entry.kind == FileService::Entry::Kind::Missing) {
            _context.output.talk(text(folder) +
                                 " does not exist: the days will finish with nothing built");
        }
        return outcome;
    }

    Outcome request() {
        _context.files.connection().listen(
            ThumbsProgress::tokens(), [this](const QByteArray& token, const PubSubMessage& news) {
                if (_progress.take(token, news.data, news.length)) {
                    _lastNews = Clock::ticks();
                }
            });
        // News of a day that is done at once must not be missed.
        bus().awaitSubscriptions(kSubscriptionMilliseconds);
        _lostBefore = bus().lostConnections();
        for (const QByteArray& day : _progress.days()) {
            Message message;
            message.construct(kThumbnailDayCommand, "SS", _options.job.constData(),
                              day.constData());
            if (!bus().sendTokenMessage(kDaemonCommands, message)) {
                return outcomeOf(Answer::NoBroker, "thumbs build");
            }
        }
        _begun = _lastNews = Clock::ticks();
        return Outcome::done();
    }

    void report() {
        for (const QByteArray& day : _progress.takeFinished()) {
            _context.output.line(words(day) + " finished");
            _context.output.object({{"command", "thumbs build"},
                                    {"job", text(_options.job)},
                                    {"day", words(day)},
                                    {"finished", true}});
        }
        const QString current = _progress.current().isEmpty() ? "waiting for the daemon"
                                                              : "at " + words(_progress.current());
        if (!_context.output.style().quiet && !_context.output.style().json) {
            _context.output.status(QString("thumbs build: %1 of %2 days finished, %3, %4 s")
                                       .arg(_progress.finishedCount())
                                       .arg(_progress.days().size())
                                       .arg(current)
                                       .arg(Clock::ticksSince(_begun) / 1000));
        }
    }

    /// Done as long as there is something to wait for.
    Outcome whyToEnd() {
        if (Interrupt::requested()) {
            return Outcome::failure(ExitCode::Interrupted,
                                    "interrupted; the daemon goes on with what it was asked for");
        }
        if (!bus().isConnected() || bus().lostConnections() != _lostBefore) {
            return Outcome::failure(ExitCode::NoBroker,
                                    "the connection to the broker is lost, and with it the news");
        }
        const int silence = Clock::ticksSince(_lastNews);
        if (_progress.isIdle() && silence >= kIdleMilliseconds) {
            return Outcome::failure(ExitCode::Failed, "the daemon has no day left to do");
        }
        if (silence >= _options.newsSeconds * 1000) {
            return Outcome::failure(
                ExitCode::Failed, QString("no news of any day for %1 s").arg(_options.newsSeconds));
        }
        return Outcome::done();
    }

    Outcome finish(Outcome outcome) {
        const QByteArrayList unfinished = _progress.unfinished();
        QJsonArray days;
        for (const QByteArray& day : unfinished) {
            days.append(words(day));
        }
        _context.output.object({{"command", "thumbs build"},
                                {"job", text(_options.job)},
                                {"days", _progress.days().size()},
                                {"finishedDays", _progress.finishedCount()},
                                {"unfinished", days},
                                {"milliseconds", Clock::ticksSince(_begun)}});
        _context.output.talk(QString("%1 of %2 days finished in %3 s")
                                 .arg(_progress.finishedCount())
                                 .arg(_progress.days().size())
                                 .arg(Clock::ticksSince(_begun) / 1000.0, 0, 'f', 1));
        if (unfinished.isEmpty()) {
            return Outcome::done();
        }
        const QString more = unfinished.size() > kListedDays
                                 ? QString(" and %1 more").arg(unfinished.size() - kListedDays)
                                 : QString();
        outcome.message =
            QString("not finished: %1%2: %3")
                .arg(words(unfinished.mid(0, kListedDays).join(", ")), more, outcome.message);
        const bool isPartly = outcome.code == ExitCode::Failed && _progress.finishedCount() > 0;
        outcome.code = isPartly ? ExitCode::Partly : outcome.code;
        return outcome;
    }

    Context& _context;
    const ThumbsOptions& _options;
    ThumbsProgress _progress;
    quint32 _begun = 0;
    quint32 _lastNews = 0;
    quint32 _lostBefore = 0;
};

}  // namespace

ExitCode thumbsBuild(Context& context) {
    const Outcome outcome = ThumbsRun(context).run();
    if (!outcome.isDone()) {
        context.output.error(outcome);
    }
    return outcome.code;
}

}  // namespace storagectl
