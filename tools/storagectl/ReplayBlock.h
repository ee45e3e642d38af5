#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

namespace storagectl {

/// What a block of a replay carries. The unit writes every value to the start of the block, over
/// the one before it, so that the last value is whole and the others only count in its size: what
/// follows the value is zeros, or what is left of a longer one.
struct ReplayBlock {
    enum class Content {
        Empty,  ///< no value was written
        Value,
        Damaged,  ///< its start is no value
    };

    Content content = Content::Empty;
    qsizetype bytes = 0;  ///< of all values that were written
    QByteArray name;
    QString kind;  ///< "int", "float" or "string"
    QString text;  ///< the value for people
    QJsonValue value;

    static ReplayBlock decode(const QByteArray& block);
    /// The channel that the name of a gauge's value carries, or -1.
    int channel() const;
};

}  // namespace storagectl
