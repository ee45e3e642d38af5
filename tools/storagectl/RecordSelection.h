#pragma once

#include "tools/storagectl/RecordLayout.h"

#include <QStringList>

#include <limits>

namespace storagectl {

/// Which records and values of a recording are asked for; everything by default. Names are
/// compared without regard to case.
struct RecordSelection {
    QStringList types;   ///< codes or names
    QStringList values;  ///< "value" or "gauge.value"
    qint64 from = 0;     ///< seconds since 1970, as both ends
    qint64 to = std::numeric_limits<quint32>::max();

    bool takesTime(quint32 time) const { return time >= from && time <= to; }
    /// A type that has none of the values asked for is not taken.
    bool takesType(const RecordLayout& layout) const;
    bool takesField(const RecordLayout& layout, const RecordField& field) const;
};

}  // namespace storagectl
