#pragma once

#include <QByteArray>
#include <QString>

/// A listing made the plain way, with what Qt offers for directories: slow, and easy to see right.
namespace PlainListing {

QByteArray of(const QString& root);

/// How many entries a directory has.
int entryCount(const QString& directory);

}  // namespace PlainListing
