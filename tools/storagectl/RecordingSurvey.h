#pragma once

#include "tools/storagectl/RecordLayout.h"
#include "tools/storagectl/Recording.h"

#include <QList>
#include <QMap>

#include <vector>

namespace storagectl {

/// What one walk through a recording finds: its types and their meanings, its times, and what is
/// wrong with it. Memory does not grow with the file: of gaps and jumps the first are kept and all
/// are counted.
class RecordingSurvey {
public:
    /// Samples as they follow each other.
    class Sequence {
    public:
        void add(quint32 time);
        qint64 records() const { return _records; }
        quint32 first() const { return _first; }  ///< the earliest time
        quint32 last() const { return _last; }    ///< the latest
        /// The median of the steps ahead, of which the first thousands are kept; 0 where there is
        /// none.
        quint32 usualStep() const;
        /// Above this a step ahead is a gap.
        quint32 longestStep() const { return 3 * usualStep(); }

    private:
        static constexpr std::size_t kMaximumSteps = 4096;

        qint64 _records = 0;
        quint32 _first = 0;
        quint32 _last = 0;
        quint32 _previous = 0;
        std::vector<quint32> _steps;
    };
    struct Type {
        RecordLayout layout;
        Sequence times;
    };
    /// From one time to the next, which is far ahead (a gap) or back (a jump of the clock).
    struct Step {
        quint32 from;
        quint32 to;
    };
    struct Steps {
        static constexpr int kMaximumKept = 1000;
        QList<Step> kept;
        qint64 count = 0;

        void add(quint32 from, quint32 to);
    };

    explicit RecordingSurvey(const Recording& recording);

    /// By type code, those of samples only: no time steps and no empty records.
    const QMap<int, Type>& types() const { return _types; }
    const Sequence& all() const { return _all; }
    qint64 timeRecords() const { return _timeRecords; }
    /// Single zero bytes: the room of a thumbnail that no sample has filled.
    qint64 emptyRecords() const { return _emptyRecords; }
    const Steps& gaps() const { return _gaps; }
    const Steps& jumps() const { return _jumps; }
    /// The recording's own and what the walk has found, each as a sentence.
    const QStringList& damage() const { return _damage; }

private:
    void count(const Recording& recording);
    void countSample(const Recording& recording, const Recording::Record& record);
    void resolveKinds();
    void findSteps(const Recording& recording);
    void describeDamage(qint64 left);

    QMap<int, Type> _types;
    Sequence _all;
    qint64 _timeRecords = 0;
    qint64 _emptyRecords = 0;
    qint64 _unknown = 0;
    qint64 _firstUnknown = 0;
    int _cutBytes = 0;
    int _cutWanted = 0;
    Steps _gaps;
    Steps _jumps;
    QStringList _damage;
};

}  // namespace storagectl
