#include "tests/support/LogCapture.h"

#include "bus/DebugText.h"

namespace {

QList<QByteArray> g_lines;

void keepLine(const char* line, std::size_t length) {
    g_lines.append(QByteArray(line, static_cast<qsizetype>(length)));
}

}  // namespace

LogCapture::LogCapture() {
    g_lines.clear();
    DebugText::forgetRepeats();
    DebugText::setSink(keepLine);
}

LogCapture::~LogCapture() {
    DebugText::setSink(nullptr);
}

const QList<QByteArray>& LogCapture::lines() const {
    return g_lines;
}

int LogCapture::count(const QByteArray& line) const {
    return static_cast<int>(g_lines.count(line));
}

void LogCapture::clear() {
    g_lines.clear();
}
