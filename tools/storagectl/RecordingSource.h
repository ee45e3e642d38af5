#pragma once

#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Recording.h"

namespace storagectl {

/// Opens a recording for reading: a local file, or one of the unit's, fetched into a temporary file
/// that has no name. Integrity where it has no header, NotFound where the unit has no such file.
Outcome openRecording(Context& context, const QByteArray& path, Recording& recording);

}  // namespace storagectl
