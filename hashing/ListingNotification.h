#pragma once

#include <QString>
#include <QtGlobal>

/// Tells the unit's users that a listing is being made. One who made it is named by process id and
/// the notification's number; its updates may come from another process. Without a bus client
/// nothing is sent.
class ListingNotification {
public:
    /// Listings below "/root" are made without one.
    static bool isWantedFor(const QString& root);

    ListingNotification(const QString& root, int processId, int id)
        : _root(root), _processId(processId), _id(id) {}

    void add() const;
    /// Sends the first one and those that come more than a second after the last one sent.
    void update(int total, int done);
    void remove() const;

private:
    void send(const char* token, const char* title, int total, int done) const;

    QString _root;
    int _processId;
    int _id;
    bool _isUpdated = false;
    quint32 _lastUpdate = 0;
};
