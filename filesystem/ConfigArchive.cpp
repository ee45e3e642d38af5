#include "filesystem/ConfigArchive.h"

#include "filesystem/ExtractedTree.h"
#include "filesystem/FolderTree.h"
#include "filesystem/Subprocess.h"

#include <sys/statvfs.h>

namespace {

constexpr char kMembers[] = "root/config/configBackup";
/// Below the bus's keep-alive: a longer silence would lose the connection.
constexpr int kLongestTarMilliseconds = 240'000;

qint64 freeBytes(int folder) {
    struct statvfs status;
    if (::fstatvfs(folder, &status) != 0) {
        return 0;
    }
    return static_cast<qint64>(status.f_bavail) * static_cast<qint64>(status.f_frsize);
}

/// Some file systems do not count files: they have room for 0 of 0.
bool hasRoomForFiles(int folder) {
    struct statvfs status;
    return ::fstatvfs(folder, &status) == 0 && (status.f_files == 0 || status.f_favail > 0);
}

bool hasReserve(int folder) {
    return freeBytes(folder) >= ConfigArchive::kReservedBytes && hasRoomForFiles(folder);
}

}  // namespace

namespace ConfigArchive {

bool pack(const QList<QByteArray>& names, int output) {
    // Packed where they are: a copy of everything would cost more than tar itself.
    // To tar a backslash in a name means more than itself, unless told not to.
    Subprocess tar = {
        .arguments = {"tar", "--create", "--gzip", "--file=-", "--no-unquote", "--hard-dereference",
                      "--transform=s,^\\./,root/config/configBackup/,rSH", "--directory=/",
                      kMembers, "--directory=/root/config", "--"},
        .output = output,
        .longestMilliseconds = kLongestTarMilliseconds};
    for (const QByteArray& name : names) {
        tar.arguments.append("./" + name);
    }
    return tar.run() == 0;
}

Result unpack(int archive, int scratch) {
    const qint64 maximumBytes = freeBytes(scratch) - kReservedBytes;
    if (maximumBytes <= 0) {
        return Result::NotUnpacked;
    }
    // What tar does by itself matters as much: it drops leading slashes, refuses names with "..",
    // replaces what is in the way instead of writing through it, and makes links that lead out
    // only after everything else.
    const Subprocess tar = {
        .arguments = {"tar", "--extract", "--gzip", "--file=-", "--preserve-permissions",
                      "--directory=/root/config/configBackup", "--", kMembers},
        .input = archive,
        .longestFileBytes = maximumBytes,
        .longestMilliseconds = kLongestTarMilliseconds,
        .mayGoOn = [scratch] { return hasReserve(scratch); }};
    const int status = tar.run();
    if (status == Subprocess::kStopped || (status != 0 && !hasReserve(scratch))) {
        return Result::NotUnpacked;
    }
    const Descriptor folder = unpackedFolder(scratch);
    const bool isWhole = status == 0 && folder.isOpen() &&
                         ExtractedTree::makeHarmless(folder.number(), maximumBytes);
    return isWhole ? Result::Whole : Result::Damaged;
}

Descriptor unpackedFolder(int scratch) {
    const Descriptor root = FolderTree::openFolder(scratch, "root");
    const Descriptor config = FolderTree::openFolder(root.number(), "config");
    return FolderTree::openFolder(config.number(), kScratchName);
}

}  // namespace ConfigArchive
