#include "filesystem/NameFilter.h"

#include <QChar>
#include <QRegularExpression>
#include <QVarLengthArray>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

// What QDir's translation puts around an expression that the whole name must match.
constexpr QLatin1String kAnchoredStart("\\A(?:");
constexpr QLatin1String kAnchoredEnd(")\\z");
constexpr std::string_view kOperators = "^$.|()+?{*";

template <int (*Test)(int)>
bool isAscii(uint character) {
    return character < 0x80 && Test(static_cast<int>(character)) != 0;
}

int anyCharacter(int) {
    return 1;
}

int isWordCharacter(int character) {
    return std::isalnum(character) != 0 || character == '_';
}

struct ClassName {
    QLatin1String name;
    bool (*contains)(uint character);
};

// "lower" and "upper" are letters of either case, as case is disregarded.
constexpr ClassName kClassNames[] = {
    {QLatin1String("alpha"), isAscii<std::isalpha>},
    {QLatin1String("lower"), isAscii<std::isalpha>},
    {QLatin1String("upper"), isAscii<std::isalpha>},
    {QLatin1String("alnum"), isAscii<std::isalnum>},
    {QLatin1String("ascii"), isAscii<anyCharacter>},
    {QLatin1String("blank"), isAscii<std::isblank>},
    {QLatin1String("cntrl"), isAscii<std::iscntrl>},
    {QLatin1String("digit"), isAscii<std::isdigit>},
    {QLatin1String("graph"), isAscii<std::isgraph>},
    {QLatin1String("print"), isAscii<std::isprint>},
    {QLatin1String("punct"), isAscii<std::ispunct>},
    {QLatin1String("space"), isAscii<std::isspace>},
    {QLatin1String("word"), isAscii<isWordCharacter>},
    {QLatin1String("xdigit"), isAscii<std::isxdigit>},
};

}  // namespace

/// Reads the small part of the regular expression language that the translation of a wildcard
/// pattern uses: escaped and plain characters, sets, and "*" behind a set. The expression is known
/// to be valid.
class NameFilter::Parser {
public:
    explicit Parser(const QString& expression) : _text(expression.toUcs4()) {}

    QList<Step> parse() {
        QList<Step> steps;
        while (!atEnd()) {
            Step step = parseStep();
            const bool isRepetition = step.repeats && !steps.isEmpty() && steps.last() == step;
            if (!isRepetition) {
                steps.append(step);
            }
        }
        return steps;
    }

    /// False where the translation of an odd set ("[^][]|]") came out as more than a wildcard.
    bool isWildcard() const { return _isWildcard; }

private:
    bool atEnd() const { return _position >= _text.size(); }
    bool isNext(char character, qsizetype ahead = 0) const {
        return _position + ahead < _text.size() &&
               _text.at(_position + ahead) == static_cast<uchar>(character);
    }

    bool skip(char character) {
        const bool isThere = isNext(character);
        _position += isThere ? 1 : 0;
        return isThere;
    }

    bool isOperator() const {
        return std::any_of(kOperators.begin(), kOperators.end(),
                           [this](char character) { return isNext(character); });
    }

    uint takeCharacter() {
        skip('\\');
        return atEnd() ? 0 : _text.at(_position++);
    }

    Step parseStep() {
        Step step;
        if (skip('[')) {
            parseSet(step);
        } else {
            _isWildcard = _isWildcard && !isOperator();
            const uint character = takeCharacter();
            step.ranges.append({character, character});
        }
        step.repeats = skip('*');
        return step;
    }

    void parseSet(Step& step) {
        step.isNegated = skip('^');
        // A "]" in the first place belongs to the set.
        bool isFirst = true;
        while (!atEnd() && (isFirst || !isNext(']'))) {
            isFirst = false;
            if (!parseNamedClass(step)) {
                parseRange(step);
            }
        }
        skip(']');
    }

    void parseRange(Step& step) {
        const uint first = takeCharacter();
        const bool hasLast = isNext('-') && !isNext(']', 1);
        if (hasLast) {
            skip('-');
        }
        step.ranges.append({first, hasLast ? takeCharacter() : first});
    }

    bool parseNamedClass(Step& step) {
        if (!isNext('[') || !isNext(':', 1)) {
            return false;
        }
        const qsizetype end = _text.indexOf(']', _position);
        if (end < 0 || _text.at(end - 1) != ':' || end - _position < 4) {
            return false;
        }
        qsizetype start = _position + 2;
        const bool isNegated = _text.at(start) == '^';
        start += isNegated ? 1 : 0;
        const QString name = QString::fromUcs4(
            reinterpret_cast<const char32_t*>(_text.constData()) + start, end - 1 - start);
        for (const ClassName& known : kClassNames) {
            if (known.name == name) {
                step.classes.append({known.contains, isNegated});
                _position = end + 1;
                return true;
            }
        }
        return false;
    }

    QList<uint> _text;
    qsizetype _position = 0;
    bool _isWildcard = true;
};

bool NameFilter::Step::takes(uint character) const {
    const uint variants[] = {character, QChar::toLower(character), QChar::toUpper(character),
                             QChar::toCaseFolded(character)};
    const auto hasVariant = [&](const Range& range) {
        return std::any_of(
                   std::begin(variants), std::end(variants),
                   [&](uint variant) { return variant >= range.first && variant <= range.last; }) ||
               (range.first == range.last && QChar::toCaseFolded(range.first) == variants[3]);
    };
    const bool isInside =
        std::any_of(ranges.begin(), ranges.end(), hasVariant) ||
        std::any_of(classes.begin(), classes.end(), [character](const NamedClass& named) {
            return named.contains(character) != named.isNegated;
        });
    return isInside != isNegated;
}

NameFilter::NameFilter(const QString& pattern) {
    if (pattern.size() > kMaximumPatternCharacters) {
        return;
    }
    const QString anchored = QRegularExpression::wildcardToRegularExpression(pattern);
    const bool isWhole = anchored.startsWith(kAnchoredStart) && anchored.endsWith(kAnchoredEnd);
    const QRegularExpression expression(anchored, QRegularExpression::CaseInsensitiveOption);
    if (!isWhole || !expression.isValid()) {
        return;
    }
    const qsizetype start = kAnchoredStart.size();
    Parser parser(anchored.mid(start, anchored.size() - start - kAnchoredEnd.size()));
    _steps = parser.parse();
    _minimumLength =
        std::count_if(_steps.begin(), _steps.end(), [](const Step& step) { return !step.repeats; });
    _isUsable = parser.isWildcard();
}

bool NameFilter::matches(const QString& name) const {
    const QList<uint> characters = name.toUcs4();
    if (!_isUsable || characters.size() < _minimumLength) {
        return false;
    }
    // Whether the name up to here can have been taken by the steps before each one.
    QVarLengthArray<bool, 64> reached(_steps.size() + 1);
    std::fill(reached.begin(), reached.end(), false);
    reached[0] = true;
    const auto passRepeatingSteps = [&] {
        for (qsizetype i = 0; i < _steps.size(); ++i) {
            reached[i + 1] = reached[i + 1] || (reached[i] && _steps.at(i).repeats);
        }
    };
    passRepeatingSteps();
    for (const uint character : characters) {
        for (qsizetype i = _steps.size(); i >= 0; --i) {
            const bool stays = i < _steps.size() && reached[i] && _steps.at(i).repeats &&
                               _steps.at(i).takes(character);
            const bool arrives = i > 0 && reached[i - 1] && !_steps.at(i - 1).repeats &&
                                 _steps.at(i - 1).takes(character);
            reached[i] = stays || arrives;
        }
        passRepeatingSteps();
    }
    return reached.last();
}
