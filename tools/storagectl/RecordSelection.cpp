#include "tools/storagectl/RecordSelection.h"

#include <algorithm>

namespace storagectl {

bool RecordSelection::takesType(const RecordLayout& layout) const {
    const bool isNamed = types.isEmpty() || types.contains(QString::number(layout.type)) ||
                         types.contains(layout.name, Qt::CaseInsensitive);
    const auto isTaken = [&](const RecordField& field) { return takesField(layout, field); };
    return isNamed &&
           (values.isEmpty() || std::any_of(layout.fields.begin(), layout.fields.end(), isTaken));
}

bool RecordSelection::takesField(const RecordLayout& layout, const RecordField& field) const {
    return values.isEmpty() || values.contains(field.name, Qt::CaseInsensitive) ||
           values.contains(layout.qualified(field), Qt::CaseInsensitive);
}

}  // namespace storagectl
