#pragma once

#include <QString>
#include <QtGlobal>

namespace storagectl {

class Output;

/// How far a long piece of work is: bytes, rate and time left. The rate is that of the last 10 to
/// 20 seconds, or between the last lines: a break of long ago says nothing of the time left. On a
/// terminal it is one line, redrawn at most ten times a second; elsewhere one plain line every 30
/// seconds.
class Progress {
public:
    Progress(Output& output, const QString& name);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// A new stretch of work ("fetching"), of which `from` bytes were done before.
    void begin(const QString& what, qint64 from, qint64 total);
    /// `note` is what else there is to say of it.
    void update(qint64 done, const QString& note = {});
    /// So many bytes are done and took no time.
    void skip(qint64 bytes);
    /// So many bytes will not be done.
    void forget(qint64 bytes) { _total -= bytes; }
    /// Whether an update would show.
    bool isDue() const;

private:
    struct Mark {
        qint64 done = 0;
        quint32 tick = 0;
    };

    QString describe(qint64 done, quint32 now) const;

    Output& _output;
    QString _name;
    QString _what;
    qint64 _total = 0;
    Mark _rated;  ///< since when the rate is taken
    Mark _next;   ///< from when on, later
    quint32 _lastShown = 0;
};

/// What was done, how much and how fast, once it is.
QString summaryText(const QString& what, qint64 size, qint64 resumedFrom, qint64 milliseconds);

}  // namespace storagectl
