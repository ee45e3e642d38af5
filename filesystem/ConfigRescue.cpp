#include "filesystem/ConfigRescue.h"

#include "core/shared/StoragePaths.h"
#include "filesystem/FolderTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace {

constexpr char kRescueName[] = ".configRescue";
/// A copy under way; left by a sudden end, the next one replaces it.
constexpr char kPartialName[] = ".configRescue.part";
constexpr int kMostOfOneName = 1000;

QByteArray freeName(int folder, const QByteArray& name) {
    struct stat status;
    QByteArray free = name;
    for (int i = 2; i <= kMostOfOneName && FolderTree::findEntry(folder, free.constData(), status);
         ++i) {
        free = name + '.' + QByteArray::number(i);
    }
    return free;
}

bool keepCopy(int folder, const char* name, int data, int rescue, const QByteArray& kept) {
    return FolderTree::remove(data, kPartialName) &&
           FolderTree::copy(folder, name, data, kPartialName) && ::syncfs(data) == 0 &&
           ::renameat(data, kPartialName, rescue, kept.constData()) == 0;
}

}  // namespace

namespace ConfigRescue {

bool keep(int folder, const char* name, int trash, const char* leftover) {
    const Descriptor data = FolderTree::openFolder(AT_FDCWD, StoragePaths::kDataRoot);
    ::mkdirat(data.number(), kRescueName, S_IRWXU);
    const Descriptor rescue = FolderTree::openFolder(data.number(), kRescueName);
    if (!rescue.isOpen()) {
        return false;
    }
    const QByteArray kept = freeName(rescue.number(), name);
    if (::renameat(folder, name, rescue.number(), kept.constData()) == 0) {
        return ::fsync(rescue.number()) == 0;
    }
    if (errno != EXDEV || !keepCopy(folder, name, data.number(), rescue.number(), kept)) {
        FolderTree::remove(data.number(), kPartialName);
        return false;
    }
    return ::fsync(rescue.number()) == 0 && ::renameat(folder, name, trash, leftover) == 0;
}

void clear() {
    const Descriptor data = FolderTree::openFolder(AT_FDCWD, StoragePaths::kDataRoot);
    FolderTree::remove(data.number(), kRescueName);
}

}  // namespace ConfigRescue
