#include "bus/FakeTransport.h"
#include "bus/PubSubInterface.h"
#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kReport[] = "/tmp/child-report";
constexpr int kIoClassShift = 13;
constexpr int kOfThisProcess = 1;

/// A line of what the child does, in a file, because its memory is its own.
void report(const char* line, std::size_t length) {
    const int file = ::open(kReport, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const QByteArray text = QByteArray(line, static_cast<qsizetype>(length)) + '\n';
    EXPECT_EQ(::write(file, text.constData(), static_cast<std::size_t>(text.size())), text.size());
    ::close(file);
}

void report(const QByteArray& line) {
    report(line.constData(), static_cast<std::size_t>(line.size()));
}

class ReportingTransport : public FakeTransport {
public:
    bool publish(const char* topic, const void* payload, int length) override {
        const auto ioClass = ::syscall(SYS_ioprio_get, kOfThisProcess, 0) >> kIoClassShift;
        report(QByteArray(topic) + ' ' +
               QByteArray(static_cast<const char*>(payload), length).toHex() + " nice " +
               QByteArray::number(::getpriority(PRIO_PROCESS, 0)) + " io " +
               QByteArray::number(static_cast<int>(ioClass)));
        return FakeTransport::publish(topic, payload, length);
    }
};

/// A whole day in a child.
class ThumbnailDayTest : public ThumbnailFixture {
protected:
    ThumbnailDayTest() : _bus(nullptr, std::make_unique<ReportingTransport>()) {
        _bus.initialize("test", nullptr, nullptr, 65536, 65536, 0, IOPriority::Unchanged);
        g_pubSubInterface = &_bus;
        _manager.setJob("J");
        QFile::remove(kReport);
        DebugText::setSink(report);
    }
    ~ThumbnailDayTest() override { g_pubSubInterface = nullptr; }

    /// The lines of a day's child, which is to end well.
    QList<QByteArray> linesOf(const QString& date) {
        const pid_t child = _manager.appendDay(date);
        EXPECT_GT(child, 0);
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        QList<QByteArray> lines = readTestFile(kReport).split('\n');
        lines.removeLast();
        QFile::remove(kReport);
        return lines;
    }

    /// Command 221 "SS" with the job "J" and the date; the date and a NUL; at low priority.
    static QList<QByteArray> announcement(const QByteArray& date) {
        const QByteArray low = " nice 15 io 3";
        return {
            "ConnectionManager/to dd000000"
            "535300"
            "4a00" +
                date.toHex() + "00" + low,
            "ThumbnailManager/dayFinished " + date.toHex() + "00" + low};
    }

    PubSubInterface _bus;
};

TEST_F(ThumbnailDayTest, ADayThatHasNothingIsAnnouncedAllTheSame) {
    EXPECT_EQ(linesOf("2024-05-01"),
              QList<QByteArray>{"ThumbnailManager: appendDay(2024-05-01)"} +
                  QList<QByteArray>{"ThumbnailManager: appendDaySystem failed to open system file "
                                    "for date 2024-05-01 (filename "
                                    "\"/mmc/J/system/2024-05-01/systemData.gdf\")"} +
                  announcement("2024-05-01"));
}

TEST_F(ThumbnailDayTest, ThePayloadOfDayFinishedIs11BytesTheLastOneZero) {
    const QByteArray line = linesOf("2024-05-01").last();
    const QByteArray payload = QByteArray::fromHex(line.split(' ').at(1));
    EXPECT_EQ(payload, QByteArray("2024-05-01\0", 11));
}

TEST_F(ThumbnailDayTest, TheCategoriesAreDoneInTheirOrder) {
    for (const char* path :
         {"gauges/2024-05-02/S/calcData.gdf", "gaugecards/2024-05-02/S/rawData.gdf",
          "inputs/2024-05-02/S/rawData.gdf", "wireless/2024-05-02/S/rawData.gdf",
          "ostrevin/2024-05-02/S/rawData.gdf", "system/2024-05-02/systemData.gdf"}) {
        writeTestFile(QString("/mmc/J/") + path, RecordedSource().bytes);
    }
    const QList<QByteArray> done = {
        "ThumbnailManager: appendDay(2024-05-02)",
        "ThumbnailManager: appendDaySingleGauge added 0 records to gauge thumbnail file 2024-05-S "
        "for day 2",
        "ThumbnailManager: appendDaySingleGaugeCard added 0 records to gaugecard thumbnail file "
        "2024-05-S for day 2",
        "ThumbnailManager: appendDaySingleInput added 0 records to input thumbnail file 2024-05-S "
        "for day 2",
        "ThumbnailManager: appendDaySingleWireless added 0 records to wireless thumbnail file "
        "2024-05-S for day 2",
        "ThumbnailManager: appendDaySingleOstrevin added 0 records to ostrevin thumbnail file "
        "2024-05-S for day 2",
        "ThumbnailManager: appendDaySingleInput added 0 records to system thumbnail file 2024-05 "
        "for day 2",
    };
    EXPECT_EQ(linesOf("2024-05-02"), done + announcement("2024-05-02"));
}

TEST_F(ThumbnailDayTest, ADateOfAnotherShapeIsRejectedByEachSourceAndStillAnnounced) {
    for (const char* source : {"A", "B"}) {
        writeTestFile(QStringLiteral("/mmc/J/gauges/2024-2-3/%1/calcData.gdf").arg(source),
                      RecordedSource().bytes);
    }
    const QByteArray rejected =
        "ThumbnailManager: appendDaySingleGauge passed invalid date string \"2024-2-3\"";
    EXPECT_EQ(linesOf("2024-2-3"),
              (QList<QByteArray>{
                  "ThumbnailManager: appendDay(2024-2-3)", rejected, rejected,
                  "ThumbnailManager: appendDaySystem passed invalid date string \"2024-2-3\""}) +
                  announcement("2024-2-3"));
    EXPECT_TRUE(QDir("/root/data/J/gauges/thumbnails").isEmpty());
}

TEST_F(ThumbnailDayTest, ADateThatNoCalendarHasDoesNothingButIsAnnounced) {
    const QList<QByteArray> lines = linesOf("2024-13-45");
    EXPECT_EQ(lines.size(), 4);
    EXPECT_EQ(lines.mid(2), announcement("2024-13-45"));
}

TEST_F(ThumbnailDayTest, AJobThatLeadsOutEndsItsDayAsAnyOther) {
    _manager.setJob("../..");
    const QList<QByteArray> lines = linesOf("2024-05-01");
    ASSERT_EQ(lines.size(), 4);
    EXPECT_TRUE(
        lines.at(2).startsWith("ConnectionManager/to dd000000"
                               "535300"
                               "2e2e2f2e2e00"));
    EXPECT_EQ(lines.at(3), announcement("2024-05-01").last());
    EXPECT_TRUE(QDir("/root/data").isEmpty());
}

TEST_F(ThumbnailDayTest, JobAndDateAreSentInLatin1) {
    _manager.setJob(QString::fromUtf8("Bohr\u00fcnde \u20ac"));
    const QList<QByteArray> lines = linesOf("2024-05-01");
    EXPECT_TRUE(
        lines.at(2).startsWith("ConnectionManager/to dd000000"
                               "535300"
                               "426f6872fc6e6465203f00"));
}

TEST_F(ThumbnailDayTest, TheChildHasTheSettingsOfTheMomentOfTheFork) {
    const pid_t child = _manager.appendDay("2024-05-01");
    _manager.setJob("later");
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const QByteArray text = readTestFile(kReport);
    EXPECT_TRUE(text.contains(announcement("2024-05-01").first())) << text.constData();
    EXPECT_FALSE(QDir("/root/data/later").exists());
}

TEST_F(ThumbnailDayTest, TheCallingProcessKeepsItsPriorityAndSendsNothing) {
    const int niceValue = ::getpriority(PRIO_PROCESS, 0);
    linesOf("2024-05-01");
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), niceValue);
    EXPECT_FALSE(QFile::exists(kReport));
}

}  // namespace
