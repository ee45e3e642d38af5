#pragma once

#include "datafile/DataFileFormat.h"

#include <array>

/// How long the records of one file are, by type: what its header describes, and the device's
/// own codes for the rest. Made once a file, so that a reader looks into one table a record.
class RecordLengths {
public:
    /// Of a file that describes nothing.
    RecordLengths();
    RecordLengths(const char* header, int headerSize);

    /// The whole record, its type byte included, as the format or the header gives it; -1 for a
    /// code above 3 that the header does not describe. Every other code has 1.
    int described(int type) const;

    /// The payload that a reader takes after the type byte. An unknown code has none.
    int payload(quint8 type) const { return _payload[type]; }
    bool isKnown(quint8 type) const { return _isKnown[type]; }

    /// The device's own codes: payload bytes by file version (0 or later) and code; -1 for a code
    /// that is none of them.
    static int builtIn(quint32 version, int type);

private:
    void readDescriptors(const char* header, int headerSize);
    void fillPayloads(quint32 version);

    std::array<int, DataFileFormat::kMaximumRecordBytes> _described;
    std::array<quint8, DataFileFormat::kMaximumRecordBytes> _payload;
    std::array<bool, DataFileFormat::kMaximumRecordBytes> _isKnown;
};
