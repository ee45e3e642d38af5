#pragma once

#include "bus/Message.h"
#include "filesystem/Handle.h"

#include <QByteArray>
#include <QIODevice>
#include <QMap>
#include <QObject>
#include <QString>

/// The remote file service: numbered handles on open files and on directory snapshots, the
/// operations by handle and by name, and the protocol that brings them to remote clients. Files
/// and directories share one numbering and one table, which owns the handles. A handle is closed
/// when no operation has used it for kHandleIdleSeconds, because clients leave without a word.
///
/// Every operation fails with false (or -1): for a number that is not open, or is of the other
/// kind; and for a name outside the allowed roots. One instance a process; main thread only.
class Filesystem : public QObject {
    Q_OBJECT

public:
    static constexpr int kHandleIdleSeconds = 30;
    static constexpr int kMaximumOpenHandles = 4096;

    explicit Filesystem(QObject* parent);
    /// Closes every handle.
    ~Filesystem() override;

    /// Closes every handle whose time has come. A handle that expires later than a use right now
    /// would make it (the clock was set back) gets a whole idle time from now on.
    void expireHandles();

    /// The next number that is not in use: 0, 1, ... 2147483647, 0, ...
    int nextHandle();

    static bool validateFilename(const QString& filename);

    /// Opens a regular file with Qt's open-mode flags; `length` receives its size. Takes a number
    /// even where it fails. Logs success and failure.
    int openFile(const QString& filename, QIODevice::OpenMode flags, int& length);
    bool closeFile(int handle);

    /// Reads into `data`, which it replaces. True if exactly `length` bytes were there; otherwise
    /// `data` holds those that were. More than kMaximumReadReplyBytes are not read at all.
    bool readFile(int handle, int offset, int length, QByteArray& data);
    /// True if all `length` bytes at `data` have reached the kernel.
    bool writeFile(int handle, int offset, int length, const char* data);
    /// The raw MD5 digest of a range; a length of 0 or less is the digest of no data.
    bool generateHash(int handle, int offset, int length, QByteArray& hash);
    /// Cuts the file, or lengthens it with zeros.
    bool truncateFile(int handle, int size);

    bool deleteFile(const QString& filename);
    /// Puts a file or directory in the place of `to`. A missing `from` removes `to` all the same
    /// and fails; the two being one file fails and touches nothing.
    bool moveFile(const QString& from, const QString& to);

    /// Takes a snapshot of the entries whose names match `filter`, sorted by name, without dot
    /// names; `count` receives their number. A directory that cannot be read has none.
    int openDirectory(const QString& path, const QString& filter, int& count);
    bool closeDirectory(int handle);

    /// The entry at `index`, from 0 on: its name without path, its size in bytes (-1 for a
    /// directory), and its times in seconds since 1970 (UTC). Logs.
    bool fileInDirectory(int handle, int index, QString& name, int& length, long& created,
                         long& modified);

    /// Writes the configuration (every "*.xml" but "system.xml", and `folder`) to `archive`, both
    /// names in "/root/config". False only for an archive's name without the right ending. An
    /// archive appears, or changes, only if it is whole. Blocks until it is written.
    static bool createConfigBackupFile(const QString& folder, const QString& archive);
    /// Puts `folder`, "modbus*xml" and "job.xml" back as they are in `archive`, which is then
    /// removed, and asks for a restart. False only where there is no such archive. A damaged one
    /// takes `folder` away. Blocks until it is done.
    static bool loadConfigBackupFile(const QString& folder, const QString& archive);

    /// The protocol entry point: carries out a remote client's request and answers it on its
    /// connection. Codes that are none of the protocol's are ignored. The caller keeps `message`.
    void handleMessage(int connection, Message* message);

private:
    friend class FilesystemState;
    struct ProtocolCase;

    template <typename Kind>
    Kind* find(int handle) const;
    /// As `find`, and the handle lives on.
    template <typename Kind>
    Kind* use(int handle) const;
    template <typename Kind>
    bool close(int handle);
    bool isFull() const { return _handles.size() >= kMaximumOpenHandles; }

    // One request each: true with `reply` built, false where a bare reply is due.
    bool answerOpen(const Message& request, Message& reply);
    bool answerClose(const Message& request, Message& reply);
    bool answerRead(const Message& request, Message& reply);
    bool answerWrite(const Message& request, Message& reply);
    bool answerGenerateHash(const Message& request, Message& reply);
    bool answerTruncate(const Message& request, Message& reply);
    bool answerDelete(const Message& request, Message& reply);
    bool answerMove(const Message& request, Message& reply);
    bool answerOpenDirectory(const Message& request, Message& reply);
    bool answerCloseDirectory(const Message& request, Message& reply);
    bool answerFileInDirectory(const Message& request, Message& reply);
    static const ProtocolCase* findCase(int command);
    void answer(const ProtocolCase& known, int connection, const Message& request);

    QMap<int, Handle*> _handles;
    int _nextHandle = 0;
};

extern Filesystem* g_pFilesystem;
