#include "bus/TokenTable.h"

#include <algorithm>
#include <cstring>

bool TokenTable::isUsable(QByteArrayView name) {
    return !name.isEmpty() && std::none_of(name.begin(), name.end(), [](char byte) {
        return byte == '/' || byte == '+' || byte == '#' || byte == 0;
    });
}

std::string TokenTable::topicOf(QByteArrayView name) const {
    std::string topic;
    topic.reserve(_prefix.size() + size_t(name.size()));
    topic.append(_prefix).append(name.data(), size_t(name.size()));
    std::replace(topic.begin() + qptrdiff(_prefix.size()), topic.end(), '.', '/');
    return topic;
}

int TokenTable::add(const QByteArray& name, const QByteArray& topic) {
    const int id = _nextId++;
    _tokens.insert(name, {id, 0});
    _names.insert(id, name);
    _topics.insert(topic, id);
    return id;
}

bool TokenTable::want(const QByteArray& name) {
    if (!_tokens.contains(name)) {
        add(name, QByteArray::fromStdString(topicOf(name)));
    }
    return ++_tokens[name].wishes == 1;
}

bool TokenTable::unwant(const QByteArray& name) {
    const auto token = _tokens.find(name);
    if (token == _tokens.end() || --token->wishes > 0) {
        return false;
    }
    _names.remove(token->id);
    _topics.remove(QByteArray::fromStdString(topicOf(name)));
    _tokens.erase(token);
    return true;
}

int TokenTable::find(QByteArrayView name) const {
    return _tokens.value(QByteArray::fromRawData(name.data(), name.size())).id;
}

QByteArray TokenTable::nameOf(int id) const {
    return _names.value(id);
}

int TokenTable::findTopic(const char* topic) const {
    return _topics.value(QByteArray::fromRawData(topic, qsizetype(std::strlen(topic))), -1);
}

int TokenTable::findOrAddTopic(const char* topic) {
    const int known = findTopic(topic);
    if (known >= 0 || std::strncmp(topic, _prefix.c_str(), _prefix.size()) != 0) {
        return known;
    }
    // Under its own topic: a stranger's may hold a ".", which no token's topic does.
    return add(QByteArray(topic + _prefix.size()).replace('/', '.'), QByteArray(topic));
}
