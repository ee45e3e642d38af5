#pragma once

#include <QIODevice>
#include <QString>

/// One event of a signal decoder (a sync, a frame start, a bit, an error): a type, a start and an
/// end position, and an optional text. Its binary form is in docs/formats.md, "Decoder event".
/// A negative position is one that is not set.
class DataEvent {
public:
    DataEvent() = default;
    virtual ~DataEvent() = default;
    DataEvent(const DataEvent&) = default;
    DataEvent& operator=(const DataEvent&) = default;

    virtual void construct(int type, int start, int end, const QString& text);

    int start() const { return _start; }
    int end() const { return _end; }
    int type() const { return _type; }
    QString text() const { return _text; }

    /// Moves each position that is set by `delta`, up to the largest integer at the most.
    /// KEPT: one that is moved below 0 is no longer set, and stays so.
    void shift(int delta);

    /// Writes the event, its head in one write and its text in another. False, without a log line,
    /// if the device took less, is not open, or is null.
    /// KEPT: a character outside Latin-1 is written as "?".
    bool serialize(QIODevice* device) const;
    /// Reads one event. False, without a log line and with the event unchanged, where fewer bytes
    /// than a head came, the text's length is negative, or the device is not open or null.
    /// KEPT: a text that the device ends early is taken as far as it goes, and is no failure.
    bool unSerialize(QIODevice* device);

    /// The type's name, "?(n)" for one that has none.
    static QString typeString(int type);

private:
    int _start = 0;
    int _end = 0;
    int _type = 0;
    QString _text;
};
