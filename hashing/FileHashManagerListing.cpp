#include "bus/Clock.h"
#include "bus/ForkedChild.h"
#include "bus/Message.h"
#include "core/shared/ChildPool.h"
#include "core/shared/Notification.h"
#include "core/shared/Replies.h"
#include "hashing/FileHashManager.h"
#include "hashing/FileListing.h"
#include "hashing/ListingFile.h"
#include "hashing/ListingNotification.h"
#include "hashing/ListingReply.h"

#include <QDir>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr DebugTextTarget kLog("FileHashManager");

/// Asked of the system, because to Qt some names are no files of the system at all.
bool isDirectory(const QString& path) {
    struct stat status;
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string absoluteDirectory(const QString& directory) {
    const QString absolute = QDir::cleanPath(QDir::current().absoluteFilePath(directory));
    return (absolute.endsWith(u'/') ? absolute : absolute + u'/').toStdString();
}

void sendListing(int connection, const QString& root, const QString& path) {
    Message reply;
    reply.construct(ListingReply::kCommand, "SS", root.toUtf8().constData(),
                    path.toUtf8().constData());
    sendMessageToConnection(connection, &reply);
}

}  // namespace

void FileHashManager::forkGenerateFileListing(int connection, const QString& folder,
                                              const QString& root) {
    const bool isNotified = ListingNotification::isWantedFor(root);
    const int notifierPid = isNotified ? getpid() : -1;
    const int notificationId = isNotified ? getNextRemoteID() : -1;
    const ListingNotification notification(root, notifierPid, notificationId);
    if (isNotified) {
        notification.add();
    }
    ChildPools::g_lookupsAndListings.run([=] {
        ForkedChild::yieldToForeground();
        const QString path = generateFileListing(folder, root, notifierPid, notificationId);
        if (isNotified) {
            notification.remove();
        }
        sendListing(connection, root, path);
        ForkedChild::end();
    });
}

QString FileHashManager::generateFileListing(const QString& folder, const QString& root,
                                             int notifierPid, int notificationId) {
    const quint32 start = Clock::ticks();
    if (!isDirectory(root)) {
        DebugText::send(kLog, "generateFileListing root \"%s\" does not exist!",
                        root.toUtf8().constData());
        return QString();
    }
    ListingFile listing(folder, root);
    if (!listing.open()) {
        DebugText::send(kLog, "generateFileListing failed to create listing file");
        return QString();
    }
    generateFileListingHelper(listing.file(), root, notifierPid, notificationId);
    const bool isPut = listing.putInPlace();
    DebugText::send(kLog, "generateFileListing complete in %d ms", Clock::ticksSince(start));
    if (!isPut) {
        DebugText::send(kLog, "generateFileListing failed to store listing file");
    }
    // KEPT: the path is returned also where no new listing came to stand there; a client sees
    // by the file itself what there is.
    return listing.place();
}

void FileHashManager::generateFileListingHelper(QFile& out, const QString& directory,
                                                int notifierPid, int notificationId) {
    FileListing::Progress progress;
    ListingNotification notification(directory, notifierPid, notificationId);
    if (notificationId >= 0) {
        progress = [&](int total, int done) { notification.update(total, done); };
    }
    FileListing listing(out);
    listing.addTree(absoluteDirectory(directory), progress);
    listing.flush();
}

void FileHashManager::removeUserFileListings(const QString& folder, const QString& directory) {
    QDir listings(directory);
    if (!listings.exists()) {
        return;
    }
    const QString start = QStringLiteral(".files.");
    const QString kept = start + QLatin1String(".mmc.") + folder;
    for (const QString& name : listings.entryList({start + u'*'}, QDir::Files | QDir::Hidden)) {
        if (name.startsWith(start) && name != kept) {
            listings.remove(name);
        }
    }
}
