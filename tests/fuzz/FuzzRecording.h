#pragma once

#include "tests/fuzz/FuzzInput.h"

#include <QByteArray>

/// A data file of the fuzzer's choice: mostly a header that is sound, with up to three record
/// types, and times and records behind it. README.md tells the encoding.
QByteArray takeRecording(FuzzInput& input);
