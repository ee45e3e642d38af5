#pragma once

#include <QFile>
#include <QString>

/// The listing file of a client's folder and a root: "/root/data/<folder>/.files.<root>", where
/// the root's "/" and "\" are ".". It is written beside its place, ".files.temp.<root>", and put
/// there when it is whole. Of several processes that write the same listing one does at a time:
/// each holds a lock on the file beside it until its end.
class ListingFile {
public:
    ListingFile(const QString& folder, const QString& root);

    /// Opens the file beside its place, empty, as soon as nobody else writes it. False where that
    /// cannot be: `folder` is not a folder right below "/root/data", or it cannot be written.
    bool open();
    QFile& file() { return _file; }
    const QString& place() const { return _place; }

    /// Puts what was written in its place, durably, and ends the lock. False where not all of it
    /// was written, or it could not be put there: what was there before stays.
    bool putInPlace();

private:
    bool lock();
    bool isBesideItsPlace() const;

    bool _isPlaceable;
    QString _place;
    QString _beside;
    QFile _file;
};
