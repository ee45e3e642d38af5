#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>
#include <QMap>

#include <string>

/// The wanted tokens of a process: their numbers, names and topics. A topic is the prefix and the
/// token's name with every "." as "/". Wanting is counted; a token that nobody wants any more is
/// forgotten, and its number is not used again.
class TokenTable {
public:
    explicit TokenTable(std::string prefix) : _prefix(std::move(prefix)) {}

    /// A name that can be a topic: not empty, without "/", "+", "#" and NUL.
    static bool isUsable(QByteArrayView name);

    std::string topicOf(QByteArrayView name) const;
    /// The topic filter of everything below the prefix.
    std::string everything() const { return _prefix + "#"; }
    /// The topic filter of everything one step below a name.
    std::string below(QByteArrayView name) const { return topicOf(name) + "/+"; }

    /// Counts one more wish for a token. True if it is the first.
    bool want(const QByteArray& name);
    /// Takes one wish back. True if it was the last.
    bool unwant(const QByteArray& name);

    /// -1 where it is not wanted.
    int find(QByteArrayView name) const;
    /// Empty where there is no such number.
    QByteArray nameOf(int id) const;
    /// The number of a delivery's topic, -1 where it is not wanted.
    int findTopic(const char* topic) const;
    /// The same for a process that listens by filters: unknown tokens get a number.
    int findOrAddTopic(const char* topic);

    QList<QByteArray> names() const { return _names.values(); }

private:
    struct Token {
        int id = -1;
        int wishes = 0;
    };

    int add(const QByteArray& name, const QByteArray& topic);

    std::string _prefix;
    QHash<QByteArray, Token> _tokens;
    QMap<int, QByteArray> _names;
    QHash<QByteArray, int> _topics;
    int _nextId = 0;
};
