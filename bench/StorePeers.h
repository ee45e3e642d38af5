#pragma once

#include <QString>

#include <cstdint>

/// What others offer for a day of one sample a second: each keeps its own form of the day, made by
/// the constructor, brings it down to 15 minutes and looks half an hour up. They throw where
/// something fails.

/// A round-robin database that consolidates while it is updated: all samples in one call.
class RoundRobinPeer {
public:
    explicit RoundRobinPeer(const QString& date);
    ~RoundRobinPeer();
    RoundRobinPeer(const RoundRobinPeer&) = delete;
    RoundRobinPeer& operator=(const RoundRobinPeer&) = delete;

    /// Makes the database anew, empty; before each `update`.
    void clear();
    void update();
    /// What the database has of the half hour from that second of the day on, opened anew.
    void fetchHalfHour(int fromSecond);

private:
    struct Samples;
    Samples* _samples;
};

/// A table of an SQL database, in page cache: the first sample of each 15 minutes by GROUP BY.
class SqlPeer {
public:
    explicit SqlPeer(const QString& date);
    ~SqlPeer();
    SqlPeer(const SqlPeer&) = delete;
    SqlPeer& operator=(const SqlPeer&) = delete;

    /// Returns how many intervals there are.
    int query();
    /// The samples of the half hour from that second of the day on, over a connection of its own;
    /// returns how many.
    int openAndQueryHalfHour(int fromSecond);

private:
    std::uint32_t _begin;
    struct sqlite3* _database;
};
