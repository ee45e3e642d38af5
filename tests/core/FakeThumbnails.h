#pragma once

#include <QList>
#include <QString>

#include <functional>

#include <sys/types.h>

/// Stands in for ThumbnailManager in this folder's test program: notes the days that it is to
/// start and forks nothing, so that a test decides how a day's child fares.
namespace FakeThumbnails {

struct Started {
    QString job;
    QString date;
    bool operator==(const Started&) const = default;
};

/// A pid that no child ever has.
inline constexpr pid_t kNobody = 0x7fffffff;

/// What was started, or was to be, oldest first.
extern QList<Started> started;
/// Makes the next day's child.
extern std::function<pid_t()> child;

/// Nothing started; each child is kNobody.
void reset();

}  // namespace FakeThumbnails
