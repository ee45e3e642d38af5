#include "tests/support/ForkObserver.h"

#include "bus/DebugText.h"
#include "core/shared/ReapedChildren.h"

#include <gtest/gtest.h>

#include <QDataStream>
#include <QIODevice>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum Kind : quint8 { Line, Publish };

pid_t g_observer = 0;
int g_report = -1;
QList<QByteArray> g_lines;

/// Whole, or the parent would read what follows as something else.
void tell(Kind kind, const QByteArray& what, const QByteArray& payload = {}) {
    QByteArray bytes;
    QDataStream(&bytes, QIODevice::WriteOnly) << kind << what << payload;
    for (const char *at = bytes.constData(), *end = at + bytes.size(); at < end;) {
        const ssize_t written = write(g_report, at, static_cast<std::size_t>(end - at));
        if (written < 0) {
            _exit(98);
        }
        at += written;
    }
}

void noteLine(const char* line, std::size_t length) {
    const QByteArray text(line, static_cast<qsizetype>(length));
    if (getpid() == g_observer) {
        g_lines.append(text);
    } else {
        tell(Line, text);
    }
}

QByteArray readToEnd(int descriptor) {
    QByteArray bytes;
    char block[4096];
    for (ssize_t count = 0; (count = read(descriptor, block, sizeof block)) > 0;) {
        bytes.append(block, count);
    }
    return bytes;
}

/// The status that the next child ends with, left to ReapedChildren to reap.
int statusOfChild() {
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0) {
        return ForkObserver::kNoChild;
    }
    ReapedChildren::reap();
    g_lines.removeAll("sigchild waitpid loop");
    return info.si_code == CLD_EXITED ? info.si_status : -info.si_status;
}

}  // namespace

ForkObserver::ForkObserver(FakeBus& bus) : _bus(bus) {
    g_observer = getpid();
    g_lines.clear();
    DebugText::forgetRepeats();
    DebugText::setSink(noteLine);
    _bus.transport().onPublish = [](const FakeTransport::Sent& sent) {
        if (getpid() != g_observer) {
            tell(Publish, sent.token, sent.payload);
        }
    };
}

ForkObserver::~ForkObserver() {
    DebugText::setSink(nullptr);
    _bus.transport().onPublish = nullptr;
}

ChildReport ForkObserver::run(const std::function<void()>& life) {
    ChildReport report{{}, {}, kNoChild};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe";
        return report;
    }
    g_report = ends[1];
    life();
    if (getpid() != g_observer) {
        _exit(kWentOn);
    }
    close(ends[1]);
    QDataStream told(readToEnd(ends[0]));
    close(ends[0]);
    while (!told.atEnd()) {
        Kind kind = Line;
        FakeTransport::Sent sent;
        told >> kind >> sent.token >> sent.payload;
        if (kind == Line) {
            report.lines.append(sent.token);
        } else {
            report.sent.append(FakeBus::decoded(sent));
        }
    }
    report.status = statusOfChild();
    return report;
}

const QList<QByteArray>& ForkObserver::lines() const {
    return g_lines;
}
