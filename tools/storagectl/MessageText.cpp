#include "tools/storagectl/MessageText.h"

#include "bus/Message.h"
#include "filesystem/FileProtocol.h"
#include "tools/storagectl/Output.h"

#include <QJsonArray>
#include <QtEndian>

namespace storagectl {

namespace {

constexpr int kFrameBytes = 4;
constexpr int kShownBlockBytes = 32;

struct CommandName {
    int command;
    const char* name;
};

constexpr CommandName kNames[] = {
    {1, "quit"},
    {MESSAGE_WRITE_COUNT, "write count"},
    {220, "thumbnail day"},
    {221, "thumbnail day done"},
    {230, "historical lookup"},
    {231, "begin replay"},
    {232, "continue replay"},
    {233, "replay data"},
    {234, "acknowledge replay data"},
    {MESSAGE_FILE_OPEN, "MESSAGE_FILE_OPEN"},
    {MESSAGE_FILE_CLOSE, "MESSAGE_FILE_CLOSE"},
    {MESSAGE_FILE_READ, "MESSAGE_FILE_READ"},
    {MESSAGE_FILE_WRITE, "MESSAGE_FILE_WRITE"},
    {MESSAGE_FILE_GENERATE_HASH, "MESSAGE_FILE_GENERATE_HASH"},
    {MESSAGE_FILE_TRUNCATE, "MESSAGE_FILE_TRUNCATE"},
    {MESSAGE_FILE_DELETE, "MESSAGE_FILE_DELETE"},
    {MESSAGE_FILE_MOVE, "MESSAGE_FILE_MOVE"},
    {MESSAGE_OPEN_DIRECTORY, "MESSAGE_OPEN_DIRECTORY"},
    {MESSAGE_CLOSE_DIRECTORY, "MESSAGE_CLOSE_DIRECTORY"},
    {MESSAGE_GET_FILE_IN_DIR, "MESSAGE_GET_FILE_IN_DIR"},
    {MESSAGE_GENERATE_LISTING, "generate file listing"},
    {MESSAGE_LZF_DOWNLOAD, "MESSAGE_LZF_DOWNLOAD"},
    {MESSAGE_CONFIG_BACKUP, "create configuration backup"},
    {MESSAGE_CONFIG_RESTORE, "load configuration backup"},
};

QString nameOf(const QByteArray& token, int command) {
    // Notifications have no command of their own and travel as 0.
    if (command == 0) {
        return token.startsWith("Message.ExtProc.") || token == "StorageManager.to" ? "keep-alive"
                                                                                    : "";
    }
    for (const CommandName& known : kNames) {
        if (known.command == command) {
            return known.name;
        }
    }
    return {};
}

bool carriesConnection(const QByteArray& token) {
    return token == "Message.storage" || token == "ConnectionManager.clientMessage";
}

bool carriesNoMessage(const QByteArray& token) {
    return token == "ThumbnailManager.dayFinished" || token == "System.restartApplication";
}

QString blockText(const QByteArray& bytes) {
    const QString hex = QString::fromLatin1(bytes.left(kShownBlockBytes).toHex());
    return QString("<%1 bytes: %2%3>")
        .arg(bytes.size())
        .arg(hex, bytes.size() > kShownBlockBytes ? "..." : "");
}

QString quoted(const char* value) {
    return '"' + escaped(QString::fromUtf8(value)).replace('"', "\\\"") + '"';
}

}  // namespace

MessageText::MessageText(const QByteArray& token, const QByteArray& payload) : _token(token) {
    if (carriesNoMessage(token)) {
        _raw = payload;
        return;
    }
    if (!carriesConnection(token)) {
        readMessage(payload);
        return;
    }
    _hasConnection = payload.size() >= kFrameBytes;
    if (_hasConnection) {
        _connection = qFromLittleEndian<qint32>(payload.constData());
        readMessage(payload.mid(kFrameBytes));
    } else {
        _raw = payload;
    }
}

void MessageText::readMessage(const QByteArray& bytes) {
    Message message;
    _isMessage = message.construct(bytes.constData(), static_cast<int>(bytes.size()));
    if (!_isMessage) {
        _raw = bytes;
        return;
    }
    _command = message.command();
    _name = nameOf(_token, _command);
    _format = message.formatString();
    for (int i = 0; i < _format.size(); ++i) {
        QJsonValue value;
        QString word;
        if (_format[i] == 'S') {
            value = QString::fromUtf8(message.parameterAsString(i));
            word = quoted(message.parameterAsString(i));
        } else if (_format[i] == 'B') {
            int length = 0;
            const char* block = message.parameterAsBLOB(i, length);
            word = blockText(QByteArray::fromRawData(block, length));
            value = word;
        } else {
            const int number =
                _format[i] == 'c' ? message.parameterAsByte(i) : message.parameterAsInt32(i);
            value = number;
            word = QString::number(number);
        }
        _values.append(value);
        _words.append(word);
    }
}

QString MessageText::line() const {
    QStringList words{escaped(QString::fromUtf8(_token))};
    if (_hasConnection) {
        words += '#' + QString::number(_connection);
    }
    if (!_isMessage) {
        words +=
            carriesNoMessage(_token) ? quoted(_raw.constData()) : "malformed " + blockText(_raw);
        return words.join(' ');
    }
    const QString number =
        _command >= 0x1400 ? "0x" + QString::number(_command, 16) : QString::number(_command);
    words += _name.isEmpty() ? number : _name + " (" + number + ')';
    if (!_format.isEmpty()) {
        words += QString::fromLatin1(_format);
    }
    return (words + _words).join(' ');
}

QJsonObject MessageText::object() const {
    QJsonObject object{{"token", QString::fromUtf8(_token)}};
    if (_hasConnection) {
        object.insert("connection", _connection);
    }
    if (!_isMessage) {
        object.insert("bytes", QString::fromLatin1(_raw.left(kShownBlockBytes).toHex()));
        object.insert("length", _raw.size());
        return object;
    }
    object.insert("message", _command);
    if (!_name.isEmpty()) {
        object.insert("name", _name);
    }
    object.insert("format", QString::fromLatin1(_format));
    QJsonArray values;
    for (const QJsonValue& value : _values) {
        values.append(value);
    }
    object.insert("parameters", values);
    return object;
}

}  // namespace storagectl
