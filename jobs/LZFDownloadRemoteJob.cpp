#include "jobs/LZFDownloadRemoteJob.h"

#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"
#include "core/shared/RegularFile.h"
#include "core/shared/Tokens.h"
#include "jobs/DownloadStream.h"
#include "jobs/RemoteJobManager.h"

#include <QtEndian>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include <lzf.h>

namespace {

constexpr DebugTextTarget kLog("LZFDownloadRemoteJob");

/// More than this, and the job waits for the connection to drain.
constexpr quint32 kMostQueuedBytes = 90'112;
constexpr int kUnknownQueuedBytes = 1 << 30;
constexpr qint64 kLongestSilenceSeconds = 4;
/// Names looked at in a slice: a directory may hold millions that do not count.
constexpr int kNamesASlice = 512;

QByteArray writeCountToken(int connection) {
    return QString::asprintf(Tokens::kWriteCountFormat, connection).toLatin1();
}

}  // namespace

LZFDownloadRemoteJob::LZFDownloadRemoteJob(RemoteJobManager* manager, int connectionID,
                                           int transferID, const QString& request)
    : RemoteJob(manager, connectionID),
      _request(request),
      _lastSend(Clock::wallSeconds()),
      _waitsSince(lastActivity()),
      _writeCount(kUnknownQueuedBytes) {
    DebugText::send(kLog, "created");
    _jobID = transferID;
    _timeoutMilliseconds = kReportTimeoutMilliseconds;
    if (g_pubSubInterface == nullptr) {
        return;
    }
    _lostConnections = g_pubSubInterface->lostConnections();
    g_pubSubInterface->addWantedToken(Tokens::kConnectionStatus);
    g_pubSubInterface->addWantedToken(writeCountToken(connectionID));
    Message wish;
    wish.construct(DownloadStream::kWriteCountCommand, "i", connectionID);
    g_pubSubInterface->sendTokenMessage(Tokens::kConnectionManager, wish);
}

LZFDownloadRemoteJob::~LZFDownloadRemoteJob() {
    DebugText::send(kLog, "destroyed");
    if (g_pubSubInterface != nullptr) {
        g_pubSubInterface->removeWantedToken(Tokens::kConnectionStatus);
        g_pubSubInterface->removeWantedToken(writeCountToken(connectionID()));
    }
}

QString LZFDownloadRemoteJob::type() const {
    return QStringLiteral("LZFDownloadRemoteJob");
}

void LZFDownloadRemoteJob::handleWriteCount(int count) {
    _writeCount = count;
    _waitsSince = PubSubInterface::getSystemTicks();
}

void LZFDownloadRemoteJob::runSlice() {
    if (_needsToClose) {
        return;
    }
    if (isConnectionLost()) {
        DebugText::send(kLog, "the bus connection was lost, download ends");
        _needsToClose = true;
        return;
    }
    // KEPT: unsigned, so a count below 0 waits too.
    if (static_cast<quint32>(_writeCount) > kMostQueuedBytes) {
        hadActivity();
        _needsToClose = isOverdue(_waitsSince);
        return;
    }
    if (isSendDue()) {
        sendData();
    } else {
        advance();
    }
    hadActivity();
    _waitsSince = lastActivity();
    // The next slice is due at once, not after the wait for the bus.
    g_pubSubInterface->skipNextWait();
}

bool LZFDownloadRemoteJob::isConnectionLost() const {
    return g_pubSubInterface == nullptr || !g_pubSubInterface->isConnected() ||
           g_pubSubInterface->lostConnections() != _lostConnections;
}

/// With nothing to send an empty message goes out, as a sign of life.
bool LZFDownloadRemoteJob::isSendDue() const {
    const qint64 silence = Clock::wallSeconds() - _lastSend;
    // Below 0: the clock was set back.
    return _records.size() >= DownloadStream::kMessageBytes || silence >= kLongestSilenceSeconds ||
           silence < 0;
}

void LZFDownloadRemoteJob::advance() {
    if (_prefixHash) {
        continuePrefixHash();
    } else if (_directory.isOpen()) {
        packDirectoryBlock();
    } else if (_position < _fileSize) {
        packFileBlock();
    } else if (hasPending()) {
        startNextEntry();
    } else {
        finish();
    }
}

QString LZFDownloadRemoteJob::takePending() {
    qsizetype end = _request.indexOf(QLatin1Char('\n'), _nextPending);
    if (end < 0) {
        end = _request.size();
    }
    const QString line = _request.mid(_nextPending, end - _nextPending);
    _nextPending = end + 1;
    return line;
}

void LZFDownloadRemoteJob::startNextEntry() {
    const QString line = takePending();
    DebugText::send(kLog, "pid %d : move to next file: %s", getpid(), line.toUtf8().constData());
    _file.close();
    _fileSize = 0;
    _position = 0;
    _deltaOffset = 0;
    const DownloadEntry entry = DownloadEntry::parsed(line);
    struct stat status;
    if (::stat(QFile::encodeName(entry.path).constData(), &status) != 0) {
        addError(QStringLiteral("Missing"));
    } else if (S_ISDIR(status.st_mode)) {
        startDirectory(entry.path);
    } else {
        startFile(entry);
    }
}

void LZFDownloadRemoteJob::startDirectory(const QString& path) {
    const quint32 start = PubSubInterface::getSystemTicks();
    if (!_directory.open(path)) {
        addError(QStringLiteral("Open error"));
        return;
    }
    DebugText::send(kLog, "got directory in %d ms for %s", Clock::ticksSince(start),
                    path.toUtf8().constData());
    _isFirstBlock = true;
}

void LZFDownloadRemoteJob::startFile(const DownloadEntry& entry) {
    const bool isOpen = RegularFile::open(_file, entry.path, QIODevice::ReadOnly);
    // Asked once: the file may be growing.
    const qint64 size = isOpen ? _file.size() : -1;
    if (size < 0 || size > std::numeric_limits<int>::max()) {
        addError(QStringLiteral("Open error"));
        return;
    }
    _fileSize = static_cast<int>(size);
    if (entry.claimsPrefixOf(_fileSize)) {
        _entry = entry;
        _prefixHash.emplace(entry.offset);
        continuePrefixHash();
        return;
    }
    startBlocks(0);
}

void LZFDownloadRemoteJob::continuePrefixHash() {
    const bool wasRead = _prefixHash->addPiece(_file);
    if (wasRead && !_prefixHash->isComplete()) {
        return;
    }
    const bool isSame = wasRead && _prefixHash->text() == _entry.prefixHash;
    _prefixHash.reset();
    startBlocks(isSame ? _entry.offset : 0);
}

void LZFDownloadRemoteJob::startBlocks(int offset) {
    _deltaOffset = offset;
    _position = offset;
    _isFirstBlock = true;
    if (!_file.seek(offset)) {
        addError(QStringLiteral("Open error"));
        _position = _fileSize;
    } else if (_fileSize == 0) {
        DebugText::send(kLog, "zero length file");
        addData(DownloadStream::kEmptyFile, 0, nullptr);
    } else if (offset == _fileSize) {
        DebugText::send(kLog, "zero length delta");
        addData(DownloadStream::kNothingLeft, 0, nullptr);
    }
}

void LZFDownloadRemoteJob::packDirectoryBlock() {
    if (!_records.hasRoomForBlock()) {
        sendData();
        return;
    }
    _work.reserve(DownloadStream::kBlockBytes);
    packDirectoryEntries();
}

/// Adds entries to the block, and packs it when it is full or the directory at its end.
void LZFDownloadRemoteJob::packDirectoryEntries() {
    for (int i = 0; i < kNamesASlice; ++i) {
        switch (_directory.look()) {
            case DirectoryReader::Step::Skipped:
                continue;
            case DirectoryReader::Step::AtEnd:
                endDirectory();
                return;
            case DirectoryReader::Step::Failed:
                failDirectory();
                return;
            case DirectoryReader::Step::Found:
                break;
        }
        const DirectoryReader::Entry& entry = _directory.entry();
        if (_work.size() + DownloadStream::kEntryHeaderBytes + entry.name.size() >
            DownloadStream::kBlockBytes) {
            packWork(DownloadStream::kDirectoryBlock);
            return;
        }
        addDirEntry(
            entry.isDirectory ? DownloadStream::kDirectoryEntry : DownloadStream::kFileEntry,
            entry.size, entry.modified, entry.name);
        _directory.take();
    }
}

void LZFDownloadRemoteJob::endDirectory() {
    _directory.close();
    if (!_work.isEmpty()) {
        packWork(DownloadStream::kDirectoryBlock);
        return;
    }
    DebugText::send(kLog, "no more dir entries");
    addData(DownloadStream::kEmptyDirectory, 0, nullptr);
}

/// What was read of it is sent all the same. With nothing of it in the stream, an error of reading
/// would seem to be that of the entry before.
void LZFDownloadRemoteJob::failDirectory() {
    _directory.close();
    if (!_work.isEmpty()) {
        packWork(DownloadStream::kDirectoryBlock);
    }
    addError(_isFirstBlock ? QStringLiteral("Open error") : QStringLiteral("Read error"));
}

void LZFDownloadRemoteJob::packFileBlock() {
    if (!_records.hasRoomForBlock()) {
        sendData();
        return;
    }
    const int length = std::min(_fileSize - _position, DownloadStream::kBlockBytes);
    DebugText::send(kLog, "read next %d bytes of file", length);
    _work.reserve(DownloadStream::kBlockBytes);
    _work.resize(length);
    const auto count = static_cast<int>(_file.read(_work.data(), length));
    _work.resize(std::max(count, 0));
    if (count < 1) {
        DebugText::send(kLog, "file read error");
        addError(QStringLiteral("Read error"));
        _position = _fileSize;
        return;
    }
    packWork(0);
    _position += count;
}

void LZFDownloadRemoteJob::packWork(unsigned char flags) {
    const auto length = static_cast<unsigned>(_work.size());
    flags |= _isFirstBlock ? DownloadStream::kFirstBlock : 0;
    flags |= _deltaOffset > 0 ? DownloadStream::kResumedBlock : 0;
    _deltaOffset = 0;
    _compressed.resize(DownloadStream::kBlockBytes);
    // A byte less than the block, so that only one that shrinks counts.
    const unsigned packed = lzf_compress(_work.constData(), length, _compressed.data(), length - 1);
    if (packed > 0) {
        DebugText::send(kLog, "compressed from %u to %u bytes", length, packed);
        addData(DownloadStream::kCompressedBlock | flags, static_cast<quint16>(packed),
                _compressed.constData());
    } else {
        DebugText::send(kLog, "compression failed, write uncompressed");
        addData(DownloadStream::kRawBlock | flags, static_cast<quint16>(length), _work.constData());
    }
    _work.resize(0);
    _isFirstBlock = false;
}

void LZFDownloadRemoteJob::finish() {
    DebugText::send(kLog, "done!");
    addData(DownloadStream::kEnd, 0, nullptr);
    while (_records.size() > 0) {
        sendData();
    }
    _needsToClose = true;
}

void LZFDownloadRemoteJob::addData(unsigned char type, unsigned short length, const char* data) {
    _records.add(type, length, data);
    hadActivity();
}

void LZFDownloadRemoteJob::addError(const QString& text) {
    const QByteArray latin1 = text.toLatin1();
    addData(DownloadStream::kError, static_cast<quint16>(latin1.size()), latin1.constData());
}

int LZFDownloadRemoteJob::addDirEntry(unsigned char type, int size, unsigned int time,
                                      const QString& name) {
    const QByteArray latin1 = name.toLatin1();
    char header[DownloadStream::kEntryHeaderBytes] = {static_cast<char>(type)};
    qToLittleEndian<qint32>(size, header + 1);
    qToLittleEndian<quint32>(time, header + 5);
    qToLittleEndian<quint32>(static_cast<quint32>(latin1.size()), header + 9);
    _work.append(header, sizeof header).append(latin1);
    return static_cast<int>(sizeof header + latin1.size());
}

void LZFDownloadRemoteJob::sendData() {
    const int length = std::min(_records.size(), DownloadStream::kMessageBytes);
    Message message;
    message.construct(DownloadStream::kCommand, "iB", jobID(), length, _records.data());
    _manager->sendMessage(connectionID(), message);
    _writeCount += length;
    _records.remove(length);
    _lastSend = Clock::wallSeconds();
    hadActivity();
}
