#pragma once

#include "tools/storagectl/Commands.h"

#include <QList>

namespace storagectl {

class Listing;

/// A file below a directory of the unit.
struct UnitFile {
    QByteArray name;       ///< below the directory, UTF-8; leads nowhere else
    qint64 size = 0;       ///< in bytes
    qint64 modified = -1;  ///< seconds since 1970, -1 where not known
};

/// The files below a directory of the unit, without hidden ones: those of a listing that the
/// daemon makes now, or, where there is no folder for one, it fails, or it cannot carry the names,
/// what download jobs tell directory by directory. Which of them, and why, is said.
class UnitTree {
public:
    explicit UnitTree(Context& context) : _context(context) {}

    /// NotFound, or what else ends it, where neither road leads anywhere.
    Outcome read();

    /// In the order of their names; each once.
    const QList<UnitFile>& files() const { return _files; }
    /// False where something below the directory could not be told.
    bool isComplete() const { return _isComplete; }
    /// Bytes a second at which the listing came; 0 where that says nothing.
    qint64 measuredRate() const { return _measuredRate; }

private:
    Outcome readListing(QString& whyNot);
    Outcome fetchNewListing(Listing& listing);
    Outcome walk();
    void takeOver(const Listing& listing);
    bool add(const UnitFile& file);
    void sort();

    Context& _context;
    QList<UnitFile> _files;
    bool _isComplete = true;
    qint64 _measuredRate = 0;
};

/// Whether one component of a relative path begins with a point.
bool isHiddenName(const QByteArray& name);

}  // namespace storagectl
