#include "bus/DebugText.h"

#include "bus/Clock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <unistd.h>

namespace {

constexpr char kInformation = '6';
constexpr char kDebug = '7';
constexpr std::size_t kPriorityBytes = 3;

const bool g_underJournal = std::getenv("JOURNAL_STREAM") != nullptr;
DebugText::Sink g_sink = nullptr;

/// How often lines of one kind came in the current second: of one target and format, or of one
/// text where the format is no more than "%s". A collision of two kinds in the table forgets the
/// older one, so that at worst a line is written that could have been counted.
struct Repeats {
    static constexpr std::size_t kKeptBytes = 200;

    std::uint64_t kind = 0;
    int count = 0;
    char priority = kInformation;
    std::size_t keptLength = 0;
    char kept[kKeptBytes];
};

std::array<Repeats, 64> g_repeats;
quint32 g_repeatsSecond = 0;

void writeLine(char priority, const char* text, std::size_t length) {
    length = std::min(length, DebugText::kMaximumLineBytes);
    if (g_sink) {
        g_sink(text, length);
        return;
    }
    char line[kPriorityBytes + DebugText::kMaximumLineBytes + 1];
    std::size_t used = 0;
    if (g_underJournal) {
        line[used++] = '<';
        line[used++] = priority;
        line[used++] = '>';
    }
    std::memcpy(line + used, text, length);
    used += length;
    line[used++] = '\n';
    while (::write(STDERR_FILENO, line, used) < 0 && errno == EINTR) {
    }
}

void writeOwedCount(Repeats& repeats) {
    const int owed = repeats.count - DebugText::kRepeatsPerSecond;
    repeats.count = 0;
    if (owed <= 0) {
        return;
    }
    char line[Repeats::kKeptBytes + 64];
    const int length = std::snprintf(line, sizeof line, "%.*s (and %d more of this kind)",
                                     int(repeats.keptLength), repeats.kept, owed);
    writeLine(repeats.priority, line, std::size_t(length));
}

Repeats& repeatsOf(std::uint64_t kind) {
    const quint32 second = Clock::ticks() / 1000;
    if (second != g_repeatsSecond) {
        g_repeatsSecond = second;
        DebugText::flushRepeats();
    }
    Repeats& repeats = g_repeats[kind >> 58];
    if (repeats.kind != kind) {
        writeOwedCount(repeats);
        repeats.kind = kind;
    }
    return repeats;
}

std::uint64_t kindOf(const char* target, const char* format, va_list arguments) {
    constexpr std::uint64_t kSpread = 0x9e3779b97f4a7c15U;
    std::uint64_t kind = reinterpret_cast<std::uintptr_t>(target);
    if (std::strcmp(format, "%s") != 0) {
        return (kind ^ reinterpret_cast<std::uintptr_t>(format) * kSpread) * kSpread;
    }
    va_list copy;
    va_copy(copy, arguments);
    for (const char* text = va_arg(copy, const char*); text && *text; ++text) {
        kind = (kind ^ static_cast<unsigned char>(*text)) * kSpread;
    }
    va_end(copy);
    return kind * kSpread;
}

/// True where the second has seen enough of the kind: this one is counted, and that is all.
bool isCountedOnly(Repeats& repeats) {
    if (repeats.count <= DebugText::kRepeatsPerSecond) {
        return false;
    }
    ++repeats.count;
    return true;
}

void writeOrKeep(Repeats& repeats, char priority, std::string_view line) {
    if (++repeats.count <= DebugText::kRepeatsPerSecond) {
        writeLine(priority, line.data(), line.size());
        return;
    }
    repeats.priority = priority;
    repeats.keptLength = std::min(line.size(), Repeats::kKeptBytes);
    std::memcpy(repeats.kept, line.data(), repeats.keptLength);
}

/// Bytes that could forge a line or drive a terminal become \xNN. Returns the escaped length.
std::size_t escape(const char* text, char (&escaped)[DebugText::kMaximumLineBytes + 1]) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::size_t used = 0;
    for (; *text && used < DebugText::kMaximumLineBytes; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte >= 0x20 && byte < 0x7f) {
            escaped[used++] = *text;
            continue;
        }
        if (used + 4 > DebugText::kMaximumLineBytes) {
            break;
        }
        escaped[used++] = '\\';
        escaped[used++] = 'x';
        escaped[used++] = kDigits[byte >> 4];
        escaped[used++] = kDigits[byte & 15];
    }
    return used;
}

void sendLine(char priority, const char* target, const char* format, va_list arguments) {
    const int savedErrno = errno;
    Repeats& repeats = repeatsOf(kindOf(target, format, arguments));
    if (isCountedOnly(repeats)) {
        return;
    }
    char text[DebugText::kMaximumLineBytes + 1];
    std::size_t used = 0;
    if (target) {
        used = std::min(std::strlen(target), std::size_t(128));
        std::memcpy(text, target, used);
        text[used++] = ':';
        text[used++] = ' ';
    }
    if (std::vsnprintf(text + used, sizeof text - used, format, arguments) < 0) {
        text[used] = 0;
    }
    char escaped[DebugText::kMaximumLineBytes + 1];
    writeOrKeep(repeats, priority, {escaped, escape(text, escaped)});
    errno = savedErrno;
}

}  // namespace

void DebugText::send(const char* target, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sendLine(kInformation, target, format, arguments);
    va_end(arguments);
}

void DebugText::send(const DebugTextTarget& target, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sendLine(kInformation, target.name(), format, arguments);
    va_end(arguments);
}

void DebugText::sendRoutine(const char* target, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sendLine(kDebug, target, format, arguments);
    va_end(arguments);
}

void DebugText::plain(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    sendLine(kInformation, nullptr, format, arguments);
    va_end(arguments);
}

void DebugText::flushRepeats() {
    for (Repeats& repeats : g_repeats) {
        writeOwedCount(repeats);
    }
}

void DebugText::forgetRepeats() {
    for (Repeats& repeats : g_repeats) {
        repeats.count = 0;
    }
}

void DebugText::setSink(Sink sink) {
    g_sink = sink;
}
