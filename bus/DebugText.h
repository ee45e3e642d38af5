#pragma once

#include <cstddef>

/// A named source of log lines. The name must outlive the target (a literal).
class DebugTextTarget {
public:
    explicit constexpr DebugTextTarget(const char* name) : _name(name) {}
    constexpr const char* name() const { return _name; }

private:
    const char* _name;
};

/// The log: one line a call, "target: text", on standard error with a single write. No lock and
/// no heap memory, so signal handlers may call it. The text is cut at 1,023 bytes; control bytes
/// and bytes from 0x80 on are written as \xNN, so that a name cannot forge a line. Under the
/// journal (JOURNAL_STREAM is set) each line begins with its priority. Of lines with one target and
/// format, whatever their values, 100 a second are written (where the format is no more than "%s":
/// of one text); the rest is counted, and the count written once when the second is over.
class DebugText {
public:
    static constexpr std::size_t kMaximumLineBytes = 1023;
    static constexpr int kRepeatsPerSecond = 100;

    [[gnu::format(printf, 2, 3)]] static void send(const char* target, const char* format, ...);
    [[gnu::format(printf, 2, 3)]] static void send(const DebugTextTarget& target,
                                                   const char* format, ...);
    /// As `send`, with the journal's debug priority: for a line that comes every second.
    [[gnu::format(printf, 2, 3)]] static void sendRoutine(const char* target, const char* format,
                                                          ...);
    /// The text alone.
    [[gnu::format(printf, 1, 2)]] static void plain(const char* format, ...);

    /// Writes the counts of suppressed repetitions that are still owed.
    static void flushRepeats();
    /// Forgets them: in a forked child they are its parent's to write.
    static void forgetRepeats();

    /// Sends every line (without its line feed) to `sink` instead; null restores standard error.
    using Sink = void (*)(const char* line, std::size_t length);
    static void setSink(Sink sink);
};
