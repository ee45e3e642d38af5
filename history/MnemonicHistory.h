#pragma once

#include <QString>

#include <array>

/// The recent history of one measured value: 30 slots of a minute each, newest first. Samples come
/// in order of time; the last one of a minute is that minute's value. Times are seconds, unsigned
/// 64-bit, and wrap.
/// KEPT: a minute without a sample reads 0.0, as one that measured 0.0 does.
class MnemonicHistory {
public:
    static constexpr int kSlots = 30;
    static constexpr unsigned long long kSlotSeconds = 60;

    explicit MnemonicHistory(const QString& name);

    const QString& name() const { return _name; }

    /// From now on `addRecord` opens no further slot in a call in which the row has become full.
    /// There is no way back.
    void setHaltWhenFull() { _haltWhenFull = true; }

    /// Empties the row.
    /// KEPT: a row that halts when full still does.
    void clear();
    /// Empties the row and starts it, so that the first sample at `ts` opens a slot beginning
    /// there.
    void setStartTimestamp(unsigned long long ts);

    /// True where a sample at `ts` does not fall into the current slot.
    /// KEPT: true for a time before the current slot too, the difference being unsigned.
    bool timeForRecord(unsigned long long ts) const;

    /// Opens the slots up to `ts` and puts the value into the current one. The first sample of an
    /// empty row opens the slot that begins at it. A value beyond a row that halted is dropped.
    void addRecord(unsigned long long ts, float value);

    /// `kSlots` values, index 0 the current one; valid as long as this object.
    const float* history() const { return _history.data(); }
    /// Slots begun since the row was emptied: more than `kSlots` where it went on, and no more
    /// than the largest integer.
    int count() const { return _count; }
    bool isFull() const { return _count >= kSlots; }
    /// True until the first sample or start time.
    bool isEmpty() const { return !_started; }

private:
    void openSlots(unsigned long long wanted);

    QString _name;
    std::array<float, kSlots> _history{};
    bool _started = false;
    /// Where the current slot begins.
    unsigned long long _startTimestamp = 0;
    bool _haltWhenFull = false;
    int _count = 0;
};
