#pragma once

#include "core/ThumbnailSchedule.h"

#include "core/shared/ReapedChildren.h"
#include "tests/core/DaemonFixture.h"
#include "tests/support/Files.h"

#include <csignal>

using Started = FakeThumbnails::Started;

inline constexpr char kTodo[] = "/root/data/thumbnailTodo.txt";
inline constexpr char kFinished[] = "/root/data/thumbnailsComplete.txt";
inline constexpr char kMissing[] = "(missing)";

/// The schedule over a fake bus and a fake ThumbnailManager.
class ThumbnailScheduleFixture : public DaemonFixture {
protected:
    void SetUp() override { emptyRoots(); }

    void finish(const QByteArray& date) {
        receive("ThumbnailManager.dayFinished", date + QByteArray(1, '\0'));
    }

    /// A step, and which notification it sent on which token.
    QList<QByteArray> tokensOfStep() {
        bus.takeSent();
        ThumbnailSchedule::runStep();
        QList<QByteArray> tokens;
        for (const FakeBus::Sent& sent : bus.takeSent()) {
            tokens.append(sent.token);
        }
        return tokens;
    }

    static QList<Started> waiting() {
        QList<Started> days;
        for (const ThumbnailDate& day : g_thumbnailDays) {
            days.append({day.job, day.date});
        }
        return days;
    }

    /// Children of the days to be started from now on, with what becomes of each.
    void childrenExit(int status) {
        FakeThumbnails::child = [status] { return endChild([status] { _exit(status); }); };
    }
    void childrenAreKilled() {
        FakeThumbnails::child = [] { return endChild([] { raise(SIGKILL); }); };
    }

    /// Steps from the end of a day's child on, up to when its word cannot come any more.
    void loseChild() {
        ReapedChildren::reap();
        ThumbnailSchedule::runStep();
        clock.tick += ThumbnailSchedule::kLostAfterMilliseconds;
        ThumbnailSchedule::runStep();
    }

private:
    /// Left for ReapedChildren to reap.
    static pid_t endChild(const std::function<void()>& end) {
        const pid_t child = fork();
        if (child == 0) {
            end();
        }
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
        return child;
    }
};
