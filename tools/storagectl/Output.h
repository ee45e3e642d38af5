#pragma once

#include "tools/storagectl/Outcome.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QTimeZone>

namespace storagectl {

/// Everything that a person or a script sees. Data goes to standard output, talk to standard
/// error; with `json` each result and each error is one object a line on standard output, and
/// errors are not repeated as talk. Colour and the redrawn status line are for terminals only.
/// What came over the wire is escaped on a terminal, so that a name cannot steer it. A closed
/// pipe is no error: the output is `isClosed`, and the command ends.
class Output {
public:
    struct Style {
        bool json = false;
        bool quiet = false;
        bool verbose = false;
    };

    /// The descriptors stay the caller's.
    Output(int dataDescriptor, int talkDescriptor, Style style);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    const Style& style() const { return _style; }
    bool isClosed() const { return _isClosed; }
    /// Done, or LocalFile where data could not be written for another reason than a gone reader.
    Outcome dataOutcome() const;
    bool talksToTerminal() const { return _talksToTerminal; }
    bool dataGoesToTerminal() const { return _dataToTerminal; }

    /// Bytes as they are. False once the reader is gone, the disk is full or a signal came.
    bool data(const QByteArray& bytes);
    /// A line of data for people; none with `json`.
    void line(const QString& text);
    /// A result for scripts; nothing without `json`.
    void object(const QJsonObject& object);
    void flush();

    void talk(const QString& text);
    /// Talk that only `verbose` asks for.
    void detail(const QString& text);
    /// Says why a command failed; `subject` names the file concerned, if any.
    void error(const Outcome& outcome, const QString& subject = {});

    /// Redraws the status line of a terminal; an empty text removes it. None is drawn while a
    /// terminal holds a line of data that is not complete.
    void status(const QString& text);

    /// A name from the wire as one component: "/" is escaped, and on a terminal control
    /// characters are too.
    QString listedName(const QByteArray& name) const;
    /// Marks a text on a terminal, as long as NO_COLOR is not set.
    QString bold(const QString& text) const;

private:
    /// The error number, 0 for success.
    int writeAll(int descriptor, const QByteArray& bytes);
    void talkLine(const QString& text, bool isError);

    int _data;
    int _talk;
    Style _style;
    bool _dataToTerminal;
    bool _talksToTerminal;
    bool _colour;
    bool _isClosed = false;
    int _dataErrno = 0;
    bool _statusShown = false;
    bool _terminalHoldsData = false;
    QByteArray _buffered;
};

/// Control characters, and those that turn the direction of writing, as \xNN or \uNNNN.
QString escaped(const QString& text);
/// 1536 as "1.5 KB".
QString humanSize(qint64 bytes);
/// Local time with its offset from UTC; "-" where it is not known (-1).
QString isoTime(qint64 seconds);
/// The same in a zone.
QString isoTime(qint64 seconds, const QTimeZone& zone);

}  // namespace storagectl
