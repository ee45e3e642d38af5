#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <string_view>

namespace storagectl {

/// What a download's stream says, in order. What was requested has no names in it: each `began`
/// is about the next entry of the request, and all that follows is too.
class StreamEvents {
public:
    enum class Start {
        File,
        ResumedFile,  ///< goes on behind the prefix that was claimed
        EmptyFile,
        NothingLeft,  ///< the prefix that was claimed is the whole file
        Directory,
        EmptyDirectory,
        Failure,  ///< `failed` follows
    };
    struct Entry {
        bool isDirectory = false;
        qint64 size = 0;
        qint64 modified = 0;  ///< seconds since 1970
        QByteArray name;      ///< Latin-1, "?" for what that does not have
    };

    virtual ~StreamEvents() = default;
    virtual void began(Start start) = 0;
    virtual void fileBytes(const char* data, qint64 length) = 0;
    virtual void directoryEntry(const Entry& entry) = 0;
    /// Why the entry has no contents, or not all of them.
    virtual void failed(const QByteArray& reason) = 0;
    /// Whether more may come of the entry that the last bytes belong to. If not, an error of
    /// reading is the next one's.
    virtual bool expectsMore() const { return true; }
};

/// Takes a download's stream apart, from pieces cut anywhere. It trusts nobody: whatever no
/// daemon sends is a fault, and from then on nothing is taken. Holds one record at the most.
class StreamReader {
public:
    explicit StreamReader(StreamEvents& events) : _events(events) {}

    /// Takes the next piece. False once there is a fault.
    bool add(const char* data, qint64 length);

    /// The end was said, and nothing came behind it.
    bool hasEnded() const { return _hasEnded && _fault.isEmpty(); }
    /// What is wrong with the stream; empty where nothing is.
    const QString& fault() const { return _fault; }

private:
    enum class Open { Nothing, File, Directory };

    bool takeRecord(unsigned char type, std::string_view payload);
    bool takeMark(unsigned char type);
    bool takeBlock(unsigned char type, std::string_view payload);
    bool openBlock(bool isFirst, bool isResumed, Open kind);
    bool takeEntries(std::string_view block);
    bool takeFailure(std::string_view reason);
    bool fail(const QString& fault);

    StreamEvents& _events;
    QByteArray _rest;      ///< of a record that has not come whole
    QByteArray _expanded;  ///< the last block
    Open _open = Open::Nothing;
    bool _hasEnded = false;
    QString _fault;
};

}  // namespace storagectl
