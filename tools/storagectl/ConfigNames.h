#pragma once

#include "tools/storagectl/Outcome.h"

#include <QByteArray>

namespace storagectl {

/// The names that the requests for configuration archives carry. They are checked before anything
/// is sent: they become parts of paths, and a daemon may hand them to a shell as they are.
namespace ConfigNames {

/// Unsafe, with a sentence, for what is no name of a folder right below "/root/config".
Outcome checkFolder(const QByteArray& name);
/// The same of an archive: a name that ends in ".configBackup", in any case of letters.
Outcome checkArchive(const QByteArray& name);
bool isArchive(const QByteArray& name);

/// "FOLDER-20240501-081500.configBackup", after the local time.
QByteArray archiveFor(const QByteArray& folder);
/// "FOLDER-before-restore-20240501-081500.configBackup".
QByteArray safetyArchiveFor(const QByteArray& folder);

}  // namespace ConfigNames

}  // namespace storagectl
