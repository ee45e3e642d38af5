#include "tools/storagectl/RecordingSource.h"

#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/RemoteCopy.h"

namespace storagectl {

Outcome openRecording(Context& context, const QByteArray& path, Recording& recording) {
    int descriptor = -1;
    const Outcome outcome = context.options.isOnUnit(path)
                                ? fetchToTemporary(context, path, descriptor)
                                : openLocalFile(path, descriptor);
    return outcome.isDone() ? recording.adopt(descriptor, path) : outcome;
}

}  // namespace storagectl
