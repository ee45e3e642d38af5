#pragma once

#include <QByteArray>
#include <QString>

#include <gtest/gtest.h>

/// Short ways to make and look at files. They fail the test where the file system refuses.

/// Creates or replaces a file, and the folders on the way to it.
void writeTestFile(const QString& path, const QByteArray& contents);
/// The contents, or "(missing)".
QByteArray readTestFile(const QString& path);
/// A hole of `size` bytes.
void makeSparseFile(const QString& path, qint64 size);
/// Empties the unit's three roots (which exist in the sandbox only).
void emptyRoots();
