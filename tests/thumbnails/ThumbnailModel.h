#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>

#include <optional>

/// The thumbnail builder that the real one is measured against: slow and plain, over bytes in
/// memory, every step written out.
class ThumbnailModel {
public:
    static constexpr int kNoSource = -1;
    static constexpr int kNoThumbnail = -2;

    /// Of one month "yyyy-MM" of one source.
    ThumbnailModel(const QByteArray& month, int fallbackType);

    /// Takes in a data file for a day of the month, from 1. How many records were to be placed,
    /// or why there are none.
    int appendDay(const QByteArray& source, int day);

    /// The thumbnail file, if there is one.
    std::optional<QByteArray> file;
    /// What is to be logged on the way.
    QList<QByteArray> log;

private:
    bool isOpenable(const QByteArray& source);
    int headerSize(const QByteArray& header);
    bool openThumbnail(const QByteArray& source);
    void makeSlots();
    int walk(const QByteArray& source, int dayIndex);
    void place(int dayIndex, quint32 time, int type, const QByteArray& record);

    quint32 _monthStart;
    int _fallbackType;
    QByteArray _header;
    QMap<int, int> _slots;
};
