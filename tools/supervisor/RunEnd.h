#pragma once

#include <QByteArray>

/// How a run of the daemon ended, in words.
namespace RunEnd {

/// The shell's number for a program that could not be executed.
inline constexpr int kNotStarted = 127;

/// `status` is waitpid's.
QByteArray describe(int status);

}  // namespace RunEnd
