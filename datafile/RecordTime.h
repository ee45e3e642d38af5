#pragma once

#include "datafile/DataFileFormat.h"

/// The time that a record stream carries: a reader keeps a current time in seconds since 1970,
/// which the time records change and every other record has.
namespace RecordTime {

inline bool isTimeRecord(int type) {
    return type >= DataFileFormat::kAbsoluteTime && type <= DataFileFormat::kTimeStep;
}

/// The current time after one more record. `record` begins with its type byte and has at least 5
/// readable bytes.
/// KEPT: a short step is written signed and read unsigned; daily files hold forward steps only.
inline quint32 after(const char* record, quint32 current) {
    switch (DataFileFormat::byteAt(record, 0)) {
        case DataFileFormat::kAbsoluteTime:
            return qFromLittleEndian<quint32>(record + 1);
        case DataFileFormat::kShortTimeStep:
            return current + DataFileFormat::byteAt(record, 1);
        case DataFileFormat::kTimeStep:
            return current + static_cast<quint32>(qFromLittleEndian<qint16>(record + 1));
        default:
            return current;
    }
}

}  // namespace RecordTime
