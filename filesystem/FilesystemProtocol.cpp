#include "bus/DebugText.h"
#include "core/shared/Replies.h"
#include "filesystem/FileProtocol.h"
#include "filesystem/Filesystem.h"
#include "hashing/FileHashManager.h"
#include "jobs/LZFDownloadRemoteJob.h"
#include "jobs/RemoteJobManager.h"

#include <QString>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

namespace {

constexpr char kLogTarget[] = "Filesystem";
/// A job keeps its request as long as it runs.
constexpr std::size_t kMaximumDownloadRequestBytes = 4 * 1024 * 1024;

/// Text on the wire is UTF-8. Replies echo the bytes as they came, never this.
QString textParameter(const Message& request, int index) {
    return QString::fromUtf8(request.parameterAsString(index));
}

bool hasFormat(const Message& request, const char* format) {
    return std::strcmp(request.formatString(), format) == 0;
}

/// Every download of the connection gets the count. Nothing is checked: what is missing reads as 0.
void passOnWriteCount(const Message& report) {
    if (g_remoteManager == nullptr) {
        return;
    }
    const int connection = report.parameterAsInt32(0);
    for (RemoteJob* const job : g_remoteManager->jobs()) {
        if (job->connectionID() == connection &&
            job->type() == QLatin1String("LZFDownloadRemoteJob")) {
            static_cast<LZFDownloadRemoteJob*>(job)->handleWriteCount(report.parameterAsInt32(1));
        }
    }
}

bool canStartDownload(int connection, const Message& request) {
    if (!hasFormat(request, "iS")) {
        DebugText::send(kLogTarget, "MESSAGE_LZF_DOWNLOAD bad args");
        return false;
    }
    if (g_remoteManager == nullptr || !g_remoteManager->hasRoomFor(connection) ||
        std::strlen(request.parameterAsString(1)) > kMaximumDownloadRequestBytes) {
        DebugText::send(kLogTarget, "MESSAGE_LZF_DOWNLOAD refused, connection %d", connection);
        return false;
    }
    return true;
}

void startDownload(int connection, const Message& request) {
    DebugText::send(kLogTarget, "MESSAGE_LZF_DOWNLOAD");
    if (!canStartDownload(connection, request)) {
        sendMessageToConnection(connection, MESSAGE_LZF_DOWNLOAD);
        return;
    }
    auto job = std::make_unique<LZFDownloadRemoteJob>(
        g_remoteManager, connection, request.parameterAsInt32(0), textParameter(request, 1));
    g_remoteManager->addJob(job.get());
    job.release();
}

/// Nothing is checked: a missing name reads as "".
void answerWithFlag(int connection, const Message& request,
                    bool (*operation)(const QString& folder, const QString& archive)) {
    const bool isDone = operation(textParameter(request, 0), textParameter(request, 1));
    Message reply;
    reply.construct(request.command(), "c", isDone ? 1 : 0);
    sendMessageToConnection(connection, &reply);
}

}  // namespace

struct Filesystem::ProtocolCase {
    int code;
    const char* name;
    const char* requestFormat;
    bool logsBadArguments;
    bool (Filesystem::*answer)(const Message& request, Message& reply);
};

const Filesystem::ProtocolCase* Filesystem::findCase(int command) {
    static constexpr ProtocolCase kCases[] = {
        {MESSAGE_FILE_OPEN, "MESSAGE_FILE_OPEN", "Si", false, &Filesystem::answerOpen},
        {MESSAGE_FILE_CLOSE, "MESSAGE_FILE_CLOSE", "i", false, &Filesystem::answerClose},
        {MESSAGE_FILE_READ, "MESSAGE_FILE_READ", "iii", false, &Filesystem::answerRead},
        {MESSAGE_FILE_WRITE, "MESSAGE_FILE_WRITE", "iiB", false, &Filesystem::answerWrite},
        {MESSAGE_FILE_GENERATE_HASH, "MESSAGE_FILE_GENERATE_HASH", "iii", false,
         &Filesystem::answerGenerateHash},
        {MESSAGE_FILE_TRUNCATE, "MESSAGE_FILE_TRUNCATE", "ii", false, &Filesystem::answerTruncate},
        {MESSAGE_FILE_DELETE, "MESSAGE_FILE_DELETE", "S", false, &Filesystem::answerDelete},
        {MESSAGE_FILE_MOVE, "MESSAGE_FILE_MOVE", "SS", false, &Filesystem::answerMove},
        {MESSAGE_OPEN_DIRECTORY, "MESSAGE_OPEN_DIRECTORY", "SS", false,
         &Filesystem::answerOpenDirectory},
        {MESSAGE_CLOSE_DIRECTORY, "MESSAGE_CLOSE_DIRECTORY", "i", false,
         &Filesystem::answerCloseDirectory},
        {MESSAGE_GET_FILE_IN_DIR, "MESSAGE_GET_FILE_IN_DIR", "ii", true,
         &Filesystem::answerFileInDirectory},
    };
    const auto* const found =
        std::find_if(std::begin(kCases), std::end(kCases),
                     [command](const ProtocolCase& known) { return known.code == command; });
    return found == std::end(kCases) ? nullptr : found;
}

void Filesystem::handleMessage(int connection, Message* message) {
    switch (message->command()) {
        case MESSAGE_WRITE_COUNT:
            passOnWriteCount(*message);
            return;
        case MESSAGE_GENERATE_LISTING:
            FileHashManager::forkGenerateFileListing(connection, textParameter(*message, 0),
                                                     textParameter(*message, 1));
            return;
        case MESSAGE_LZF_DOWNLOAD:
            startDownload(connection, *message);
            return;
        case MESSAGE_DOWNLOAD_UNUSED:
            return;
        case MESSAGE_CONFIG_BACKUP:
            answerWithFlag(connection, *message, &Filesystem::createConfigBackupFile);
            return;
        case MESSAGE_CONFIG_RESTORE:
            answerWithFlag(connection, *message, &Filesystem::loadConfigBackupFile);
            return;
        default:
            break;
    }
    if (const ProtocolCase* const known = findCase(message->command())) {
        answer(*known, connection, *message);
    }
}

void Filesystem::answer(const ProtocolCase& known, int connection, const Message& request) {
    DebugText::send(kLogTarget, "%s", known.name);
    if (!hasFormat(request, known.requestFormat)) {
        if (known.logsBadArguments) {
            DebugText::send(kLogTarget, "%s bad args", known.name);
        }
        sendMessageToConnection(connection, known.code);
        return;
    }
    Message reply;
    if ((this->*known.answer)(request, reply)) {
        sendMessageToConnection(connection, &reply);
    } else {
        sendMessageToConnection(connection, known.code);
    }
}

bool Filesystem::answerOpen(const Message& request, Message& reply) {
    const char* const path = request.parameterAsString(0);
    const auto flags = QIODevice::OpenMode::fromInt(request.parameterAsInt32(1));
    int length = 0;
    const int handle = openFile(textParameter(request, 0), flags, length);
    if (handle < 0) {
        reply.construct(MESSAGE_FILE_OPEN, "Sii", path, -1, -1);
        DebugText::send(kLogTarget, "MESSAGE_FILE_OPEN ***ERROR*** file %s handle %d length %d",
                        path, -1, -1);
        return true;
    }
    reply.construct(MESSAGE_FILE_OPEN, "Sii", path, handle, length);
    DebugText::send(kLogTarget, "MESSAGE_FILE_OPEN file %s handle %d length %d", path, handle,
                    length);
    return true;
}

bool Filesystem::answerClose(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    if (!closeFile(handle)) {
        return false;
    }
    reply.construct(MESSAGE_FILE_CLOSE, "i", handle);
    DebugText::send(kLogTarget, "MESSAGE_FILE_CLOSE handle %d", handle);
    return true;
}

bool Filesystem::answerRead(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    const int offset = request.parameterAsInt32(1);
    const int length = request.parameterAsInt32(2);
    QByteArray data;
    if (!readFile(handle, offset, length, data)) {
        return false;
    }
    reply.construct(MESSAGE_FILE_READ, "iiB", handle, offset, length, data.constData());
    DebugText::send(kLogTarget, "MESSAGE_FILE_READ handle %d offset %d length %d", handle, offset,
                    length);
    return true;
}

bool Filesystem::answerWrite(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    const int offset = request.parameterAsInt32(1);
    int length = 0;
    const char* const block = request.parameterAsBLOB(2, length);
    if (!writeFile(handle, offset, length, block)) {
        return false;
    }
    reply.construct(MESSAGE_FILE_WRITE, "ii", handle, length);
    DebugText::send(kLogTarget, "MESSAGE_FILE_WRITE handle %d offset %d length %d", handle, offset,
                    length);
    return true;
}

bool Filesystem::answerGenerateHash(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    const int offset = request.parameterAsInt32(1);
    const int length = request.parameterAsInt32(2);
    QByteArray hash;
    if (!generateHash(handle, offset, length, hash)) {
        return false;
    }
    reply.construct(MESSAGE_FILE_GENERATE_HASH, "iiB", handle, offset, hash.size(),
                    hash.constData());
    DebugText::send(kLogTarget, "MESSAGE_FILE_GENERATE_HASH handle %d offset %d length %d", handle,
                    offset, length);
    return true;
}

bool Filesystem::answerTruncate(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    if (!truncateFile(handle, request.parameterAsInt32(1))) {
        return false;
    }
    reply.construct(MESSAGE_FILE_TRUNCATE, "i", handle);
    DebugText::send(kLogTarget, "MESSAGE_FILE_TRUNCATE handle %d", handle);
    return true;
}

bool Filesystem::answerDelete(const Message& request, Message& reply) {
    const char* const path = request.parameterAsString(0);
    if (!deleteFile(textParameter(request, 0))) {
        return false;
    }
    reply.construct(MESSAGE_FILE_DELETE, "S", path);
    // KEPT: a path after the word "handle": readers of the log look for this text.
    DebugText::send(kLogTarget, "MESSAGE_FILE_DELETE handle %s", path);
    return true;
}

bool Filesystem::answerMove(const Message& request, Message& reply) {
    const char* const from = request.parameterAsString(0);
    const char* const to = request.parameterAsString(1);
    if (!moveFile(textParameter(request, 0), textParameter(request, 1))) {
        return false;
    }
    reply.construct(MESSAGE_FILE_MOVE, "SS", from, to);
    DebugText::send(kLogTarget, "MESSAGE_FILE_MOVE file %s move to %s", from, to);
    return true;
}

bool Filesystem::answerOpenDirectory(const Message& request, Message& reply) {
    const char* const path = request.parameterAsString(0);
    int count = 0;
    const int handle = openDirectory(textParameter(request, 0), textParameter(request, 1), count);
    if (handle < 0) {
        return false;
    }
    reply.construct(MESSAGE_OPEN_DIRECTORY, "Sii", path, handle, count);
    DebugText::send(kLogTarget, "MESSAGE_OPEN_DIRECTORY file %s handle %d fileCount %d", path,
                    handle, count);
    return true;
}

bool Filesystem::answerCloseDirectory(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    if (!closeDirectory(handle)) {
        return false;
    }
    reply.construct(MESSAGE_CLOSE_DIRECTORY, "i", handle);
    DebugText::send(kLogTarget, "MESSAGE_CLOSE_DIRECTORY handle %d", handle);
    return true;
}

bool Filesystem::answerFileInDirectory(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    const int index = request.parameterAsInt32(1);
    QString name;
    int length = 0;
    long created = 0;
    long modified = 0;
    if (!fileInDirectory(handle, index, name, length, created, modified)) {
        DebugText::send(kLogTarget, "MESSAGE_GET_FILE_IN_DIR fileInDirectory failed");
        return false;
    }
    const QByteArray wireName = name.toUtf8();
    const int createTime = static_cast<int>(created);
    const int modifyTime = static_cast<int>(modified);
    reply.construct(MESSAGE_GET_FILE_IN_DIR, "iiSiii", handle, index, wireName.constData(), length,
                    createTime, modifyTime);
    DebugText::send(kLogTarget,
                    "MESSAGE_GET_FILE_IN_DIR handle %d index %d name %s length %d createTime %d "
                    "modifyTime %d",
                    handle, index, wireName.constData(), length, createTime, modifyTime);
    return true;
}
