#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

/// Files by their path.
using Tree = QMap<QString, QByteArray>;

/// Empties the unit's roots and writes the files in their places.
void writeTree(const Tree& tree);
