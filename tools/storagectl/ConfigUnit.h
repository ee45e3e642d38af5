#pragma once

#include "tools/storagectl/Commands.h"
#include "tools/storagectl/ConfigContents.h"
#include "tools/storagectl/RemoteTree.h"

#include <QList>

namespace storagectl {

/// What stands in the unit's configuration folder, and what the daemon does with it. Names are of
/// things right below "/root/config", and were checked (ConfigNames).
class ConfigUnit {
public:
    /// A file of the unit; `digest` stays empty where it is gone, or cannot be read as a whole.
    struct File {
        QByteArray path;
        qint64 size = 0;
        QByteArray digest = {};
    };

    explicit ConfigUnit(Context& context) : _context(context) {}

    static QByteArray pathOf(const QByteArray& name);

    /// What is right below the configuration folder, and all below `folder` in it unless that is
    /// empty or not there. Names are relative to the configuration folder.
    Outcome list(const QByteArray& folder, QList<RemoteEntry>& entries);
    /// Whether there is such a file.
    Outcome find(const QByteArray& archive, FileService::Entry& entry);
    /// Reads an archive through. Integrity where it is damaged; `contents` then holds what was in
    /// front of the damage. `file` is the archive as it was read, valid with Done.
    Outcome read(const QByteArray& archive, ConfigContents& contents, File& file);
    /// Asks for the digests, many at a time, and goes on after breaks.
    Outcome digest(QList<File>& files);
    Outcome digest(File& file);

    /// Sent once, whatever becomes of the answer. `flag` is the daemon's, valid with Success.
    Answer backup(const QByteArray& folder, const QByteArray& archive, bool& flag);
    Answer restore(const QByteArray& folder, const QByteArray& archive, bool& flag);
    /// After a lost answer: waits until the daemon has done what it is at.
    Answer awaitIdle();

private:
    void status(const QString& line);
    Answer request(int command, const QByteArray& folder, const QByteArray& archive, bool& flag);
    Outcome digestSome(QList<File>& files, qsizetype& next);
    Answer openSome(const QList<File>& files, QList<FileService::OpenFile>& open);
    Answer digestOpen(const QList<FileService::OpenFile>& open, QList<File>& files,
                      qsizetype first);
    Answer closeSome(const QList<FileService::OpenFile>& open);

    Context& _context;
};

}  // namespace storagectl
