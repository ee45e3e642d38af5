#include "core/shared/PutInPlace.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

bool syncFolder(const QByteArray& folder) {
    const int descriptor = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isSynced = descriptor >= 0 && ::fsync(descriptor) == 0;
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return isSynced;
}

}  // namespace

bool putInPlace(int descriptor, const QByteArray& beside, const QByteArray& place) {
    if (::fsync(descriptor) != 0 || std::rename(beside.constData(), place.constData()) != 0) {
        ::unlink(beside.constData());
        return false;
    }
    return syncFolder(place.left(place.lastIndexOf('/') + 1) + '.');
}
