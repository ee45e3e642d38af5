#pragma once

#include <QByteArray>
#include <QDate>
#include <QString>

#include <optional>

namespace sample {

/// What unit to make. The numbers are those of the profile "small".
struct Options {
    QString folder;
    QByteArray job;
    quint64 seed = 0;
    QDate from;  ///< UTC, as all days are
    int days = 7;
    int rateSeconds = 10;

    int gauges = 3;
    int gaugeCards = 1;
    int inputs = 1;
    int wireless = 1;
    int ostrevin = 1;

    int gaps = 0;        ///< in each recording
    int clockJumps = 0;  ///< spells of a wrong clock in each day
    int damaged = 0;     ///< recordings in all
    int empty = 0;       ///< recordings in all
};

/// Reads the command line. An exit status where there is nothing more to do: help was printed, or
/// the usage was wrong and said so.
std::optional<int> parseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace sample
