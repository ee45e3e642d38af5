#pragma once

#include "tools/sample/Random.h"

#include <QList>

/// When a recorder samples on one day, and what its clock says then. Times are seconds since 1970.
namespace sample {

struct Moment {
    qint64 time;       ///< what the signals follow
    quint32 recorded;  ///< what is written
};

/// A stretch of the day, in which something is wrong.
struct Spell {
    qint64 from;
    qint64 until;
    qint64 clockOffset;  ///< seconds that the clock is ahead; 0 in a spell without samples

    bool covers(qint64 time) const { return time >= from && time < until; }
};

/// Stretches of up to an hour without samples, `count` of them a day, for one source.
QList<Spell> gapsOf(qint64 dayStart, int count, Random& random);

/// Stretches of up to an hour in which the clock of the unit is wrong: by turns an hour ahead, ten
/// minutes behind, 90 seconds behind and back in the year 2000.
QList<Spell> clockSpellsOf(qint64 dayStart, int count, Random& random);

/// Every `interval` seconds, now and then a second late, from `start` until the day ends.
QList<Moment> momentsOf(qint64 start, qint64 dayEnd, qint64 interval, const QList<Spell>& gaps,
                        const QList<Spell>& clockSpells, Random& random);

}  // namespace sample
