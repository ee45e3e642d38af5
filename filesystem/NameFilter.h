#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

/// A wildcard pattern for the names in a directory: "*" any characters, "?" one character,
/// "[...]" one of a set ("[!...]" none of it), without regard to case. It selects what QDir's
/// name filter selects, because it reads the same translation of the pattern; but it follows all
/// ways through the pattern at once, where QDir's backtracking takes seconds for a handful of
/// stars. A name costs at most its length times the pattern's.
///
/// Nothing matches the empty pattern, one with a set that is never closed or runs backwards, with
/// a "/", or longer than kMaximumPatternCharacters.
class NameFilter {
public:
    static constexpr int kMaximumPatternCharacters = 4096;

    explicit NameFilter(const QString& pattern);

    bool matches(const QString& name) const;

private:
    class Parser;

    struct Range {
        uint first;
        uint last;
        bool operator==(const Range&) const = default;
    };
    struct NamedClass {
        bool (*contains)(uint character);
        bool isNegated;
        bool operator==(const NamedClass&) const = default;
    };
    /// One character of a set, or any number of them.
    struct Step {
        QList<Range> ranges;
        QList<NamedClass> classes;
        bool isNegated = false;
        bool repeats = false;
        bool operator==(const Step&) const = default;

        bool takes(uint character) const;
    };

    QList<Step> _steps;
    qsizetype _minimumLength = 0;
    bool _isUsable = false;
};
