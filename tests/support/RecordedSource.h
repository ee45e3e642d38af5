#pragma once

#include <QByteArray>

/// A source's data file of one day, put together record by record and apart from the code that
/// reads it. Its bytes are to be changed by whoever wants a damaged one.
class RecordedSource {
public:
    /// Version 2, created at 1,700,000,000, describing nothing.
    RecordedSource();

    /// Adds a record type to the header; before any record. `length` is the whole record's.
    RecordedSource& describe(int type, int length);
    /// An absolute time.
    RecordedSource& at(quint32 time);
    RecordedSource& shortStep(int seconds);
    RecordedSource& step(int seconds);
    RecordedSource& record(int type, const QByteArray& payload);

    QByteArray bytes;
};
