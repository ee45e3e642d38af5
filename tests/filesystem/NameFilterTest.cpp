#include "filesystem/NameFilter.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <random>

namespace {

/// What QDir makes of a name filter.
bool qtMatches(const QRegularExpression& expression, const QString& name) {
    return expression.match(name).hasMatch();
}

QString randomText(std::mt19937& random, const QString& alphabet, int longest) {
    QString text;
    const int length = std::uniform_int_distribution<int>(0, longest)(random);
    for (int i = 0; i < length; ++i) {
        text +=
            alphabet.at(std::uniform_int_distribution<qsizetype>(0, alphabet.size() - 1)(random));
    }
    return text;
}

void expectSameAsQt(const QString& patternAlphabet, const QString& nameAlphabet, int patterns,
                    unsigned seed) {
    std::mt19937 random(seed);
    int matches = 0;
    for (int i = 0; i < patterns; ++i) {
        const QString pattern = randomText(random, patternAlphabet, 9);
        if (pattern.contains("[^]")) {
            continue;  // Qt and its regular expressions do not agree on where this set ends
        }
        const auto expression = QRegularExpression::fromWildcard(pattern, Qt::CaseInsensitive);
        const NameFilter filter(pattern);
        for (int j = 0; j < 20; ++j) {
            const QString name = randomText(random, nameAlphabet, 6);
            const bool expected = expression.isValid() && qtMatches(expression, name);
            matches += expected ? 1 : 0;
            ASSERT_EQ(filter.matches(name), expected)
                << "pattern '" << pattern.toStdString() << "' name '" << name.toStdString() << "'";
        }
    }
    EXPECT_GT(matches, patterns / 10) << "the alphabets must meet for this to prove anything";
}

}  // namespace

TEST(NameFilter, StarsAndQuestionMarksMatchAsQtsDo) {
    expectSameAsQt("*?ab.A", "abAB.", 20'000, 1);
}

TEST(NameFilter, SetsMatchAsQtsDo) {
    expectSameAsQt("[[[]]]!^-ab*cC?", "abcABC[]!^-", 40'000, 2);
}

TEST(NameFilter, RangesMatchAsQtsDo) {
    expectSameAsQt("[[[[[]]]]]!^-----acfmxzAFMXZ059*?\\", "abcdefmxyzABFMXZ0123456789-\\", 40'000,
                   3);
}

TEST(NameFilter, WhatMeansSomethingInARegularExpressionIsPlain) {
    expectSameAsQt("\\$()+.^{}|*?[]#a&~,;'\" ", "\\$()+.^{}|#a&~,;'\" \n", 40'000, 4);
}

TEST(NameFilter, LettersOfOtherScriptsMatchAsQtsDo) {
    // Umlauts, Greek with its final sigma, Cyrillic, the long s, the Kelvin sign, and letters
    // beyond the basic plane.
    const QString letters = QString::fromUtf8("äÄéÉßẞσςΣжЖsSſkK\u212AÿŸµμı𐐀𐐨");
    std::mt19937 random(5);
    const QList<uint> points = letters.toUcs4();
    const auto pick = [&] {
        const uint point =
            points.at(std::uniform_int_distribution<qsizetype>(0, points.size() - 1)(random));
        return QString::fromUcs4(reinterpret_cast<const char32_t*>(&point), 1);
    };
    for (int i = 0; i < 20'000; ++i) {
        const QString patterns[] = {pick() + pick(), pick() + "?", "[" + pick() + pick() + "]*",
                                    "[!" + pick() + "]?", "*" + pick()};
        const QString pattern = patterns[i % 5];
        const auto expression = QRegularExpression::fromWildcard(pattern, Qt::CaseInsensitive);
        const NameFilter filter(pattern);
        const QString name = pick() + pick();
        ASSERT_EQ(filter.matches(name), qtMatches(expression, name))
            << "pattern '" << pattern.toStdString() << "' name '" << name.toStdString() << "'";
    }
}

TEST(NameFilter, NamedClassesMatchAsQtsDo) {
    for (const char* name :
         {"alpha", "lower", "upper", "alnum", "ascii", "blank", "cntrl", "digit", "graph", "print",
          "punct", "space", "word", "xdigit", "other", "", "^"}) {
        for (const char* form : {"[[:%1:]]", "[![:%1:]]", "[[:^%1:]]", "[a[:%1:]-]", "[[:%1:]-z]",
                                 "[[:%1]", "[[:%1:", "[:%1:]", "[[:%1:]5]", "[a-[:%1:]]"}) {
            const QString pattern = QString::fromLatin1(form).arg(QString::fromLatin1(name));
            const auto expression = QRegularExpression::fromWildcard(pattern, Qt::CaseInsensitive);
            const NameFilter filter(pattern);
            for (char16_t character = 1; character < 0x180; ++character) {
                const QString text(1, QChar(character));
                ASSERT_EQ(filter.matches(text), expression.isValid() && qtMatches(expression, text))
                    << pattern.toStdString() << " " << static_cast<int>(character);
            }
        }
    }
}

TEST(NameFilter, TheEmptyPatternMatchesNoName) {
    EXPECT_FALSE(NameFilter("").matches("a"));
    EXPECT_FALSE(NameFilter(QString()).matches("a"));
}

TEST(NameFilter, CaseIsDisregarded) {
    EXPECT_TRUE(NameFilter("*.GDF").matches("day.gdf"));
    EXPECT_TRUE(NameFilter("[A-C]").matches("b"));
}

TEST(NameFilter, ASetThatQtTakesForMoreThanASetMatchesNothing) {
    for (const char* pattern : {"[^][]|]", "a[^]a^[]^", "[^][](x]", "[^][].]"}) {
        EXPECT_FALSE(NameFilter(QString::fromLatin1(pattern)).matches("a"));
        EXPECT_FALSE(NameFilter(QString::fromLatin1(pattern)).matches(""));
    }
    EXPECT_TRUE(NameFilter("[^]a]").matches("b")) << "neither of ] and a";
    EXPECT_FALSE(NameFilter("[^]a]").matches("]"));
}

TEST(NameFilter, APatternWithASlashMatchesNothing) {
    EXPECT_FALSE(NameFilter("a/b").matches("ab"));
    EXPECT_FALSE(NameFilter("[a/]").matches("a"));
    EXPECT_FALSE(NameFilter("[^][]/").matches("a"));
}

TEST(NameFilter, APatternBeyondTheLimitMatchesNothing) {
    EXPECT_TRUE(NameFilter(QString(4096, u'*')).matches("a"));
    EXPECT_FALSE(NameFilter(QString(4097, u'*')).matches("a"));
    EXPECT_FALSE(NameFilter(QString(10'000'000, u'*')).matches("a"));
}

TEST(NameFilter, ManyStarsOnLongNamesTakeNoLongerThanTheirLengths) {
    // Tried one way after the other, the ways through these would outlast the unit.
    const QString name(255, u'a');
    const QString patterns[] = {QString("*a").repeated(127) + "b",
                                QString("*[a]").repeated(250) + "b",
                                QString("*?").repeated(200) + "b", QString(4000, u'*') + "b"};
    QElapsedTimer timer;
    timer.start();
    for (const QString& pattern : patterns) {
        const NameFilter filter(pattern);
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(filter.matches(name));
        }
    }
    EXPECT_LT(timer.elapsed(), 10'000);
}
