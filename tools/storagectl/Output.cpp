#include "tools/storagectl/Output.h"

#include "tools/storagectl/Interrupt.h"

#include <QDateTime>
#include <QJsonDocument>

#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace storagectl {

namespace {

constexpr qsizetype kBufferBytes = 64 * 1024;
constexpr char kEraseLine[] = "\r\033[K";

bool turnsDirection(QChar letter) {
    const char16_t code = letter.unicode();
    return (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

QString withOffset(const QDateTime& time) {
    const QString text = time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODate);
    return text.endsWith('Z') ? text.chopped(1) + "+00:00" : text;
}

}  // namespace

Output::Output(int dataDescriptor, int talkDescriptor, Style style)
    : _data(dataDescriptor),
      _talk(talkDescriptor),
      _style(style),
      _dataToTerminal(isatty(dataDescriptor) == 1),
      _talksToTerminal(isatty(talkDescriptor) == 1),
      _colour(qEnvironmentVariableIsEmpty("NO_COLOR")) {}

Output::~Output() {
    status({});
    flush();
}

bool Output::data(const QByteArray& bytes) {
    _buffered.append(bytes);
    if (_dataToTerminal || _buffered.size() >= kBufferBytes) {
        flush();
    }
    return !_isClosed;
}

void Output::line(const QString& text) {
    if (!_style.json) {
        data((_dataToTerminal ? escaped(text) : text).toUtf8() + '\n');
    }
}

void Output::object(const QJsonObject& object) {
    if (_style.json) {
        data(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
        flush();
    }
}

void Output::flush() {
    if (!_buffered.isEmpty() && !_isClosed) {
        if (_dataToTerminal) {
            status({});
            _terminalHoldsData = !_buffered.endsWith('\n');
        }
        _dataErrno = writeAll(_data, _buffered);
        _isClosed = _dataErrno != 0;
    }
    _buffered.clear();
}

Outcome Output::dataOutcome() const {
    const bool isReaderGone = _dataErrno == EPIPE || _dataErrno == EINTR;
    return _dataErrno == 0 || isReaderGone
               ? Outcome::done()
               : Outcome::failure(ExitCode::LocalFile,
                                  QString("standard output: %1").arg(std::strerror(_dataErrno)));
}

void Output::talk(const QString& text) {
    if (!_style.quiet && !_style.json) {
        talkLine(text, false);
    }
}

void Output::detail(const QString& text) {
    if (_style.verbose) {
        talkLine(text, false);
    }
}

void Output::error(const Outcome& outcome, const QString& subject) {
    if (!_style.json) {
        talkLine(outcome.message, true);
        return;
    }
    QJsonObject error{{"error", outcome.message}, {"exitCode", static_cast<int>(outcome.code)}};
    if (!subject.isEmpty()) {
        error.insert("file", subject);
    }
    object(error);
}

void Output::status(const QString& text) {
    // Redrawing would erase a line of data that is not complete.
    if (!_talksToTerminal || _terminalHoldsData || (text.isEmpty() && !_statusShown)) {
        return;
    }
    _statusShown = !text.isEmpty();
    writeAll(_talk, kEraseLine + escaped(text).toUtf8());
}

QString Output::listedName(const QByteArray& name) const {
    const QString component = QString::fromUtf8(name).replace('/', "\\x2f");
    return _dataToTerminal ? escaped(component) : component;
}

QString Output::bold(const QString& text) const {
    return _dataToTerminal && _colour ? "\033[1m" + text + "\033[0m" : text;
}

void Output::talkLine(const QString& text, bool isError) {
    flush();
    status({});
    const bool red = isError && _talksToTerminal && _colour;
    const QByteArray name = red ? "\033[31mstoragectl:\033[0m " : "storagectl: ";
    writeAll(_talk, name + escaped(text).toUtf8() + '\n');
}

int Output::writeAll(int descriptor, const QByteArray& bytes) {
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t step = ::write(descriptor, bytes.constData() + written,
                                     static_cast<std::size_t>(bytes.size() - written));
        if (step > 0) {
            written += step;
        } else if (step < 0 && errno == EAGAIN) {
            pollfd ready = {descriptor, POLLOUT, 0};
            ::poll(&ready, 1, -1);
        } else if (step < 0 && errno != EINTR) {
            return errno;
        }
        if (Interrupt::requested() && written < bytes.size()) {
            return EINTR;
        }
    }
    return 0;
}

QString escaped(const QString& text) {
    QString result;
    for (const QChar letter : text) {
        const char16_t code = letter.unicode();
        if (code < 0x20 || (code >= 0x7F && code <= 0x9F)) {
            result += QString("\\x%1").arg(code, 2, 16, QChar('0'));
        } else if (turnsDirection(letter)) {
            result += QString("\\u%1").arg(code, 4, 16, QChar('0'));
        } else {
            result += letter;
        }
    }
    return result;
}

QString humanSize(qint64 bytes) {
    static const char* const kUnits[] = {"B", "KB", "MB", "GB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    return QString::number(value, 'f', unit == 0 ? 0 : 1) + ' ' + kUnits[unit];
}

QString isoTime(qint64 seconds) {
    return seconds < 0 ? "-" : withOffset(QDateTime::fromSecsSinceEpoch(seconds));
}

QString isoTime(qint64 seconds, const QTimeZone& zone) {
    return withOffset(QDateTime::fromSecsSinceEpoch(seconds, zone));
}

}  // namespace storagectl
