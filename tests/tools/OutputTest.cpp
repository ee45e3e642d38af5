#include "tests/support/FakeClock.h"
#include "tools/storagectl/Output.h"
#include "tools/storagectl/PieceDigests.h"
#include "tools/storagectl/Progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>
#include <QCryptographicHash>
#include <csignal>

namespace {

using storagectl::ExitCode;
using storagectl::Outcome;
using storagectl::Output;
using storagectl::PieceDigests;
using storagectl::Progress;
using storagectl::Tally;

/// One end for the tool, one to see what it wrote: a pipe, or a terminal.
class Watched {
public:
    explicit Watched(bool isTerminal) {
        if (isTerminal) {
            openpty(&_ends[0], &_ends[1], nullptr, nullptr, nullptr);
        } else if (pipe(_ends) != 0) {
            ADD_FAILURE() << "no pipe";
        }
    }
    ~Watched() {
        closeReader();
        close(_ends[1]);
    }
    void closeReader() {
        if (_ends[0] >= 0) {
            close(std::exchange(_ends[0], -1));
        }
    }
    int writer() const { return _ends[1]; }
    /// What was written since the last call. A terminal hands it over in its own time, so a mark
    /// is written behind it and waited for.
    QByteArray read() const {
        const QByteArray mark("<mark>");
        EXPECT_EQ(::write(_ends[1], mark.constData(), std::size_t(mark.size())), mark.size());
        QByteArray bytes;
        while (!bytes.endsWith(mark)) {
            char block[4096];
            const ssize_t got = ::read(_ends[0], block, sizeof block);
            if (got <= 0) {
                ADD_FAILURE() << "nothing to read";
                return bytes;
            }
            bytes.append(block, got);
        }
        return bytes.chopped(mark.size());
    }

private:
    int _ends[2] = {-1, -1};
};

TEST(OutputTest, ListedNamesAreEscapedOnATerminalOnly) {
    Watched terminal(true);
    Watched pipe(false);
    Watched talk(false);
    EXPECT_EQ(Output(terminal.writer(), talk.writer(), {}).listedName("a\033[2Jb/c"),
              "a\\x1b[2Jb\\x2fc");
    EXPECT_EQ(Output(pipe.writer(), talk.writer(), {}).listedName("a\033b"), "a\033b");
}

TEST(OutputTest, CharactersThatTurnTheDirectionOfWritingAreEscaped) {
    EXPECT_EQ(storagectl::escaped(QString::fromUtf8("a\u202Eb\u0085")), "a\\u202eb\\x85");
}

TEST(OutputTest, ErrorsAreTalkOrAnObjectNeverBoth) {
    Watched data(false);
    Watched talk(false);
    const Outcome outcome = Outcome::failure(ExitCode::NotFound, "x: not found");
    Output(data.writer(), talk.writer(), {}).error(outcome, "x");
    EXPECT_EQ(talk.read(), "storagectl: x: not found\n");
    EXPECT_EQ(data.read(), "");
    Output(data.writer(), talk.writer(), {.json = true}).error(outcome, "x");
    EXPECT_EQ(talk.read(), "");
    EXPECT_EQ(data.read(), "{\"error\":\"x: not found\",\"exitCode\":4,\"file\":\"x\"}\n");
}

TEST(OutputTest, QuietKeepsErrorsAndDropsTalk) {
    Watched data(false);
    Watched talk(false);
    Output output(data.writer(), talk.writer(), {.quiet = true});
    output.talk("chatter");
    output.error(Outcome::failure(ExitCode::Failed, "bad"));
    EXPECT_EQ(talk.read(), "storagectl: bad\n");
}

TEST(OutputTest, ColourIsForTerminalsWithoutNoColor) {
    Watched data(false);
    Watched terminal(true);
    const Outcome outcome = Outcome::failure(ExitCode::Failed, "bad");
    Output(data.writer(), terminal.writer(), {}).error(outcome);
    EXPECT_TRUE(terminal.read().contains("\033[31m"));
    qputenv("NO_COLOR", "1");
    Output(data.writer(), terminal.writer(), {}).error(outcome);
    qunsetenv("NO_COLOR");
    EXPECT_EQ(terminal.read(), "storagectl: bad\r\n");
}

TEST(OutputTest, AClosedPipeClosesTheOutputQuietly) {
    std::signal(SIGPIPE, SIG_IGN);
    Watched data(false);
    Watched talk(false);
    Output output(data.writer(), talk.writer(), {});
    data.closeReader();
    EXPECT_FALSE(output.data(QByteArray(100'000, 'x')));
    EXPECT_TRUE(output.isClosed());
    EXPECT_EQ(talk.read(), "");
}

TEST(OutputTest, AFullDiskIsALocalFailureAndAGoneReaderIsNone) {
    std::signal(SIGPIPE, SIG_IGN);
    Watched data(false);
    Watched talk(false);
    const int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    {
        Output output(full, talk.writer(), {});
        EXPECT_FALSE(output.data(QByteArray(100'000, 'x')));
        EXPECT_EQ(output.dataOutcome().code, ExitCode::LocalFile);
    }
    close(full);
    Output output(data.writer(), talk.writer(), {});
    data.closeReader();
    EXPECT_FALSE(output.data(QByteArray(100'000, 'x')));
    EXPECT_TRUE(output.dataOutcome().isDone());
}

TEST(ProgressTest, OffATerminalItIsOnePlainLineEveryThirtySeconds) {
    FakeClock clock;
    Watched data(false);
    Watched talk(false);
    Output output(data.writer(), talk.writer(), {});
    Progress progress(output, "file%1");
    progress.begin("fetched", 0, 100 * 1024 * 1024);
    for (int second = 1; second <= 70; ++second) {
        clock.advance(1);
        progress.update(second * 1024 * 1024);
    }
    EXPECT_EQ(talk.read(),
              "storagectl: file%1: fetched 30.0 MB of 100.0 MB (30 %), 1.0 MB/s, 1:10 left\n"
              "storagectl: file%1: fetched 60.0 MB of 100.0 MB (60 %), 1.0 MB/s, 0:40 left\n");
}

TEST(ProgressTest, TheRateForgetsABreakOfLongAgo) {
    FakeClock clock;
    Watched data(false);
    Watched talk(false);
    Output output(data.writer(), talk.writer(), {});
    Progress progress(output, "file");
    progress.begin("fetched", 0, 100 * 1024 * 1024);
    for (int second = 1; second <= 90; ++second) {
        clock.advance(1);
        progress.update(qMax(0, second - 30) * 1024 * 1024);
    }
    EXPECT_TRUE(talk.read().endsWith(" 60.0 MB of 100.0 MB (60 %), 1.0 MB/s, 0:40 left\n"));
}

TEST(ProgressTest, WhatIsBegunAnewHasNoRateBelowNothing) {
    FakeClock clock;
    Watched data(false);
    Watched talk(false);
    Output output(data.writer(), talk.writer(), {});
    Progress progress(output, "file");
    progress.begin("fetched", 50'000'000, 100'000'000);
    clock.advance(30);
    progress.update(0);
    EXPECT_EQ(talk.read(), "storagectl: file: fetched 0 B of 95.4 MB (0 %), 0 B/s\n");
}

TEST(ProgressTest, OnATerminalItIsRedrawnAtMostTenTimesASecondAndErased) {
    FakeClock clock;
    Watched data(false);
    Watched terminal(true);
    Output output(data.writer(), terminal.writer(), {});
    {
        Progress progress(output, "file");
        progress.begin("sent", 0, 1000);
        for (int millisecond = 1; millisecond <= 1000; ++millisecond) {
            clock.tick += 1;
            progress.update(millisecond);
        }
    }
    const QByteArray drawn = terminal.read();
    EXPECT_EQ(drawn.count("sent"), 10) << drawn.constData();
    EXPECT_TRUE(drawn.endsWith("\r\033[K"));
    EXPECT_FALSE(drawn.contains('\n'));
}

TEST(ProgressTest, OnATerminalThatDataGoesToItErasesNoData) {
    FakeClock clock;
    Watched terminal(true);
    Output output(terminal.writer(), terminal.writer(), {});
    {
        Progress progress(output, "file");
        progress.begin("fetched", 0, 1000);
        clock.advance(1);
        progress.update(1);
        output.data("half a line");
        clock.advance(1);
        progress.update(500);
    }
    const QByteArray drawn = terminal.read();
    EXPECT_EQ(drawn.count("fetched"), 1) << "before the data came";
    EXPECT_TRUE(drawn.endsWith("\r\033[Khalf a line")) << drawn.constData();
}

TEST(ProgressTest, OnATerminalThatDataGoesToItComesBackAfterAWholeLine) {
    FakeClock clock;
    Watched terminal(true);
    Output output(terminal.writer(), terminal.writer(), {});
    {
        Progress progress(output, "file");
        progress.begin("fetched", 0, 1000);
        clock.advance(1);
        progress.update(1);
        output.data("a line\n");
        clock.advance(1);
        progress.update(500);
        output.data("next\n");
    }
    const QByteArray drawn = terminal.read();
    EXPECT_EQ(drawn.count("fetched"), 2);
    EXPECT_TRUE(drawn.endsWith("\r\033[Knext\r\n")) << drawn.constData();
}

TEST(TallyTest, AddsUpToTheExitCode) {
    struct Row {
        QList<ExitCode> codes;
        ExitCode expected;
    };
    const Row rows[] = {
        {{}, ExitCode::Done},
        {{ExitCode::Done, ExitCode::Done}, ExitCode::Done},
        {{ExitCode::NotFound}, ExitCode::NotFound},
        {{ExitCode::NotFound, ExitCode::NotFound}, ExitCode::NotFound},
        {{ExitCode::NotFound, ExitCode::Unsafe}, ExitCode::Failed},
        {{ExitCode::NotFound, ExitCode::Done}, ExitCode::Partly},
        {{ExitCode::Done, ExitCode::NoBroker}, ExitCode::Partly},
        {{ExitCode::Done, ExitCode::Interrupted}, ExitCode::Interrupted},
    };
    for (const Row& row : rows) {
        Tally tally;
        for (const ExitCode code : row.codes) {
            tally.add({code, "why", false});
        }
        EXPECT_EQ(tally.code(), row.expected);
    }
}

TEST(PieceDigestsTest, PiecesCoverTheStreamAndMayBeAskedForAtAnyTime) {
    const QByteArray stream(PieceDigests::kPieceBytes * 2 + 5, 'x');
    PieceDigests digests;
    EXPECT_TRUE(digests.pieces().isEmpty());
    qint64 added = 0;
    for (const qint64 step : {qint64{1}, PieceDigests::kPieceBytes, PieceDigests::kPieceBytes - 1,
                              qint64{3}, qint64{2}}) {
        digests.add(stream.constData() + added, step);
        added += step;
        qint64 covered = 0;
        for (const PieceDigests::Piece& piece : digests.pieces()) {
            EXPECT_EQ(piece.offset, covered);
            EXPECT_EQ(piece.digest, QCryptographicHash::hash(stream.mid(piece.offset, piece.length),
                                                             QCryptographicHash::Md5));
            covered += piece.length;
        }
        EXPECT_EQ(covered, added);
    }
    EXPECT_EQ(digests.pieces().size(), 3);
}

}  // namespace
