#pragma once

#include "tools/storagectl/Commands.h"

namespace storagectl {

/// Fetches a file of the unit into a temporary one without a name, proved by its digests. The
/// descriptor is the caller's, and valid with Done only.
Outcome fetchToTemporary(Context& context, const QByteArray& path, int& descriptor);

}  // namespace storagectl
