#include "tools/storagectl/DownloadJob.h"

#include "bus/Clock.h"
#include "core/shared/Tokens.h"
#include "filesystem/FileProtocol.h"

#include <QRandomGenerator>

#include <algorithm>
#include <limits>

namespace storagectl {

DownloadJob::DownloadJob(const Ends& ends)
    : _ends(ends),
      _reader(ends.events),
      _transfer(QRandomGenerator::system()->bounded(1, std::numeric_limits<int>::max())) {
    _ends.connection.listenToDownload([this](const Message& message) { take(message); });
}

DownloadJob::~DownloadJob() {
    _ends.connection.listenToDownload({});
}

Outcome DownloadJob::broken(const QString& fault) const {
    return {ExitCode::Failed, _ends.subject + ": " + fault, true};
}

Outcome DownloadJob::run(const QByteArray& entries, const std::function<bool()>& goesOn) {
    Message request;
    request.construct(MESSAGE_LZF_DOWNLOAD, "iS", _transfer, entries.constData());
    _ends.pacing.begin();
    _lastNews = Clock::ticks();
    _ends.connection.send(request);
    const Outcome outcome = converse(goesOn);
    _ends.pacing.end();
    return outcome;
}

Outcome DownloadJob::converse(const std::function<bool()>& goesOn) {
    while (!_reader.hasEnded() && !_isRefused && goesOn()) {
        if (!_reader.fault().isEmpty()) {
            return broken("its data is damaged: " + _reader.fault());
        }
        if (_isUnfit) {
            return outcomeOf(Answer::Unfit, _ends.subject);
        }
        report();
        const auto patience = static_cast<quint32>(_ends.connection.timeoutMilliseconds());
        const quint32 silence = Clock::ticks() - _lastNews;
        if (_ends.pacing.isGranted() && silence >= patience) {
            return outcomeOf(Answer::NoDaemon, _ends.subject);
        }
        const auto left = static_cast<int>(patience - std::min(silence, patience));
        const Answer answer = _ends.connection.wait(
            std::clamp(_ends.pacing.millisecondsUntilDue(), 1, std::max(left, 1)));
        if (answer != Answer::Success) {
            return outcomeOf(answer, _ends.subject);
        }
    }
    return Outcome::done();
}

void DownloadJob::report() {
    const bool wasGranted = _ends.pacing.isGranted();
    const std::optional<int> count = _ends.pacing.report();
    if (!count) {
        return;
    }
    if (!wasGranted) {
        _lastNews = Clock::ticks();
    }
    const int number = _ends.connection.connectionNumber();
    Message report;
    report.construct(MESSAGE_WRITE_COUNT, "ii", number, *count);
    _ends.connection.bus().sendTokenMessage(
        QString::asprintf(Tokens::kWriteCountFormat, number).toLatin1(), report);
}

void DownloadJob::take(const Message& message) {
    if (message.command() == MESSAGE_WRITE_COUNT) {
        _lastNews = Clock::ticks();
        _ends.pacing.wanted();
        return;
    }
    if (message.formatString()[0] == '\0') {
        _isRefused = true;
        return;
    }
    if (qstrcmp(message.formatString(), "iB") != 0) {
        _isUnfit = true;
        return;
    }
    // Of a job that this connection left.
    if (message.parameterAsInt32(0) != _transfer) {
        return;
    }
    int length = 0;
    const char* piece = message.parameterAsBLOB(1, length);
    _lastNews = Clock::ticks();
    _bytesOnWire += length;
    _ends.pacing.received(length);
    _reader.add(piece, length);
    report();
}

}  // namespace storagectl
