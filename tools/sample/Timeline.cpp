#include "tools/sample/Timeline.h"

#include <algorithm>

namespace sample {

namespace {

constexpr qint64 kDaySeconds = 86'400;
constexpr qint64 kYear2000 = 946'684'800;
constexpr qint64 kShortestSpellSeconds = 600;
constexpr qint64 kLongestSpellSeconds = 3'600;
/// One sample in so many comes a second late.
constexpr qint64 kLateOneIn = 64;

/// The clock's offsets by turns. The last one leads back to the year 2000, wherever it starts.
qint64 clockOffset(qint64 turn, qint64 from) {
    const qint64 offsets[] = {3'600, -600, -90, kYear2000 - from};
    return offsets[turn % std::ssize(offsets)];
}

/// `count` stretches, each in a part of its own of the day, so that no two meet.
QList<Spell> spellsOf(qint64 dayStart, int count, Random& random) {
    QList<Spell> spells;
    for (int i = 0; i < count; ++i) {
        const qint64 part = kDaySeconds / count;
        const qint64 from = dayStart + i * part + 1 + random.below(part / 2);
        const qint64 length =
            kShortestSpellSeconds + random.below(kLongestSpellSeconds - kShortestSpellSeconds);
        spells.append({from, from + std::min(length, part / 2 - 1), 0});
    }
    return spells;
}

const Spell* spellAt(const QList<Spell>& spells, qint64 time) {
    const auto found = std::find_if(spells.begin(), spells.end(),
                                    [time](const Spell& spell) { return spell.covers(time); });
    return found == spells.end() ? nullptr : &*found;
}

}  // namespace

QList<Spell> gapsOf(qint64 dayStart, int count, Random& random) {
    return spellsOf(dayStart, count, random);
}

QList<Spell> clockSpellsOf(qint64 dayStart, int count, Random& random) {
    QList<Spell> spells = spellsOf(dayStart, count, random);
    qint64 turn = dayStart / kDaySeconds;
    for (Spell& spell : spells) {
        spell.clockOffset = clockOffset(turn++, spell.from);
    }
    return spells;
}

QList<Moment> momentsOf(qint64 start, qint64 dayEnd, qint64 interval, const QList<Spell>& gaps,
                        const QList<Spell>& clockSpells, Random& random) {
    QList<Moment> moments;
    for (qint64 due = start; due < dayEnd; due += interval) {
        const bool isLate = interval > 1 && random.below(kLateOneIn) == 0;
        const qint64 time = std::min(due + (isLate ? 1 : 0), dayEnd - 1);
        if (spellAt(gaps, time)) {
            continue;
        }
        const Spell* spell = spellAt(clockSpells, time);
        const qint64 recorded = time + (spell ? spell->clockOffset : 0);
        moments.append({time, static_cast<quint32>(recorded)});
    }
    return moments;
}

}  // namespace sample
