#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace storagectl {

/// One delivery of the bus in words: token, connection number where the token carries one, the
/// command with its name where that is known, format and parameters. Long blocks are abbreviated.
class MessageText {
public:
    MessageText(const QByteArray& token, const QByteArray& payload);

    QString line() const;
    QJsonObject object() const;

private:
    void readMessage(const QByteArray& bytes);

    QByteArray _token;
    QByteArray _raw;  ///< what is no message
    bool _isMessage = false;
    bool _hasConnection = false;
    int _connection = 0;
    int _command = 0;
    QString _name;
    QByteArray _format;
    QList<QJsonValue> _values;
    QStringList _words;
};

}  // namespace storagectl
